/** What a recording's control calls and the modules' functions refuse, and in which order. */
#include <functional>

#include "modules/encoder.h"
#include "modules/module.h"
#include "modules/multiplexer.h"
#include "modules/screen_capture.h"
#include "modules/sound_capture.h"
#include "modules/source_reader.h"
#include "table/worker_tasks.h"

#include "library_test.h"

namespace {

using RecordingFailures = LibraryTest;

struct ControlCall {
    const char* name;
    u32 (*call)(u32* slot);
    bool refuses_running;
    /** the argument check behind the common ones, none = no argument */
    const char* last_check;

    std::string line(const char* level, const std::string& text) const
    {
        return middleware::text(level, " [SCREENRECORD_", name, "]", text);
    }
};

const ControlCall control_calls[] = {
    {"Open", [](u32* slot) { return SCREENRECORD_Open(slot, nullptr); }, true,
     "Error: invalid destination file name"},
    {"SetVideo",
     [](u32* slot) {
         return SCREENRECORD_SetVideo(slot, nullptr, nullptr, nullptr, nullptr, nullptr);
     },
     true, "Error: invalid Source name"},
    {"SetAudio", [](u32* slot) { return SCREENRECORD_SetAudio(slot, nullptr, nullptr, nullptr); },
     true, "Error: invalid Source name"},
    {"SetTsMux", [](u32* slot) { return SCREENRECORD_SetTsMux(slot, nullptr, nullptr); }, true,
     "Need to Assign one source!"},
    {"Start", SCREENRECORD_Start, false, "Need to Assign one source!"},
    {"Stop", SCREENRECORD_Stop, false, nullptr},
    {"Close", SCREENRECORD_Close, false, nullptr},
};

// Catches a missing or impossible slot that is used, and device calls before the initialisation.
TEST_F(RecordingFailures, ASlotAndTheInitialisationAreCheckedFirst)
{
    for (const ControlCall& c : control_calls) {
        SCOPED_TRACE(c.name);
        u32 slot = 0, none = 2;
        EXPECT_EQ(c.call(nullptr), 0u);
        EXPECT_EQ(c.call(&none), 0u);
        EXPECT_EQ(c.call(&slot), 0u);
        const std::string no_slot = c.line("E", "INVALID Trancode Id!");
        EXPECT_CALLS(mw.take_logs(), {no_slot, no_slot, c.line("D", "init module first!")});
        EXPECT_CALLS(mw.take_calls(), {});
    }
}

// Catches an unchecked argument, and a check before that of a running recording or that ends it.
TEST_F(RecordingFailures, ARunningRecordingIsRefusedBeforeTheArguments)
{
    for (const ControlCall& c : control_calls) {
        SCOPED_TRACE(c.name);
        u32 slot = 0;
        ASSERT_EQ(SCREENRECORD_Init(), 1u);
        if (c.last_check) {
            forget();
            EXPECT_EQ(c.call(&slot), 0u);
            EXPECT_CALLS(mw.take_logs(), {c.line("E", c.last_check)});
        }
        if (c.refuses_running) {
            ASSERT_TRUE(steps::record(0));
            forget();
            EXPECT_EQ(c.call(&slot), 0u);
            EXPECT_CALLS(mw.take_logs(), {c.line("D", "Some modules are Transcoding now, please "
                                                      "stop transcoding first! ")});
            EXPECT_EQ(task(0, VCAP).bRunning, 1);
            steps::close(0);
        }
        SCREENRECORD_DeInit();
    }
}

// Catches a start without a source, multiplexer or file, and checks in another order.
TEST_F(RecordingFailures, StartAsksForSourceMultiplexerAndFileInThatOrder)
{
    ASSERT_TRUE(SCREENRECORD_Init() && steps::open(0));
    EXPECT_EQ(steps::start(0), 0u);
    steps::set_video(0);
    EXPECT_EQ(steps::start(0), 0u);
    steps::set_mux(0);
    const u32 file = task(0, TSMUX).u32OutFile.Exchange(0);
    EXPECT_EQ(steps::start(0), 0u);
    EXPECT_CALLS(errors(), {"E [SCREENRECORD_Start]Need to Assign one source!",
                            "E [SCREENRECORD_Start][DEMO TRANCODE] Please Set Mux First!",
                            "E [SCREENRECORD_Start][DEMO TRANCODE] Please Open Transcode First!"});
    task(0, TSMUX).u32OutFile = file;
}

// Catches a device or file left open by a failed configuration, even if the failing call opened it.
TEST_F(RecordingFailures, AConfigurationThatFailsHalfWayClosesItsSlot)
{
    const struct {
        /** the middleware's call; NULL = the arguments do */
        const char* failing;
        std::function<u32()> step;
    } cases[] = {
        {nullptr, [] { return steps::set_video(0, "cap", "mpeg2"); }},
        {"ZU_VENC_Open", [] { return steps::set_video(0); }},
        {"ZU_CAP_Open", [] { return steps::set_video(0); }},
        {nullptr, [] { return steps::set_video(0, "missing.nv12"); }},
        {nullptr, [] { return steps::set_audio(0, "cap", "wav"); }},
        {"ZU_ACAP_Open", [] { return steps::set_audio(0); }},
        {nullptr, [] { return steps::set_audio(0, "missing.aac"); }},
        {"ZU_TSMUX_Open", [] { return steps::set_video(0) && steps::set_mux(0); }},
        {"ZU_TSMUX_AttachMediaSource", [] { return steps::set_video(0) && steps::set_mux(0); }},
        {"ZU_OS_CreateTask",
         [] { return steps::set_video(0) && steps::set_mux(0) && steps::start(0); }},
        {"ZU_OS_CreateMutex",
         [] { return steps::set_video(0) && steps::set_mux(0) && steps::start(0); }},
        {"ZU_TSMUX_Start",
         [] { return steps::set_video(0) && steps::set_mux(0) && steps::start(0); }},
    };
    for (const auto& c : cases)
        for (const bool opened :
             {false, true}) { // what a call has opened although it answers that it failed
            SCOPED_TRACE(std::to_string(&c - cases) + (opened ? ", opened" : ""));
            ASSERT_TRUE(SCREENRECORD_Init() && steps::open(0));
            if (c.failing)
                mw.fail(c.failing, {.takes_effect = opened});
            EXPECT_EQ(c.step(), 0u);
            EXPECT_FALSE(mw.script_pending());
            EXPECT_EQ(task(0, TSMUX).u32OutFile, 0u);
            for (const auto module : {VREADER, AREADER, VCAP, ACAP, VENC, TSMUX})
                EXPECT_EQ(task(0, module).u32Handle, 0u) << module;
            SCREENRECORD_DeInit();
            EXPECT_CALLS(mw.ledger_problems(), {});
        }
}

// Catches a device that leaks because the call that opened it answered a failure.
TEST_F(RecordingFailures, AnOpenThatFailsAndStillOpensLeavesNothing)
{
    const struct {
        const char* failing;
        s32 (*open)();
        s32 (*close)();
    } cases[] = {
        {"ZU_CAP_Open",
         [] {
             Cap_OpenParams params = {64, 64, 0, 0, 1};
             return video_cap_open(&params);
         },
         [] { return 0; }},
        {"ZU_CAP_Open", [] { return steps::capture_encode() ? 0 : -1; }, video_capenc_close},
        {"ZU_VENC_Open", [] { return steps::capture_encode() ? 0 : -1; }, video_capenc_close},
        {"ZU_ACAP_Open", audio_cap_open, audio_cap_close},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.failing);
        mw.fail(c.failing, {.takes_effect = true});
        EXPECT_EQ(c.open(), -1);
        EXPECT_EQ(c.close(), 0);
        SCREENRECORD_DeInit();
        EXPECT_CALLS(mw.ledger_problems(), {});
    }
}

// Catches a display that stays marked as connected when its slot is opened again.
TEST_F(RecordingFailures, ACaptureThatIsForgottenLeavesTheDisplayToTheNext)
{
    static Cap_OpenParams stills = {64, 64, 0, 0, 1};
    const struct {
        const char* name;
        bool (*hold)();
        u32 (*forget)();
    } cases[] = {
        {"stills", [] { return video_cap_open(&stills) == 0; }, [] { return steps::open(0); }},
        {"capture-encode",
         [] {
             CapEnc_OpenParams params = {64, 64, 30, 1000000, 1, 1, 0};
             return video_capenc_open(&params) == 0;
         },
         [] { return steps::open(0); }},
        {"recording", [] { return steps::set_video(0) == 1; }, [] { return steps::open(0); }},
        {"by an initialisation",
         [] { return SCREENRECORD_DeInit() && video_cap_open(&stills) == 0; }, SCREENRECORD_Init},
        {"by the same again", [] { return steps::set_video(0) == 1; },
         [] {
             // The second was never connected, so its device refuses.
             middleware::Middleware::instance().fail("ZU_CAP_DisconnectInput");
             return u32{steps::set_video(0) && steps::close(0)};
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (const char* forgotten : {"0x11", "0x21", "IOMMU block", "descriptor", "heap blocks"})
            mw.tolerate_problem(forgotten);
        ASSERT_TRUE(SCREENRECORD_Init() && c.hold() && c.forget());
        steps::close(0);
        forget();
        ASSERT_EQ(video_cap_open(&stills), 0);
        EXPECT_EQ(mw.count("ZU_CAP_ConnectInput"), 1);
        video_cap_close();
        ASSERT_TRUE(steps::record(0));
        EXPECT_EQ(mw.count("ZU_CAP_ConnectInput"), 2);
        EXPECT_CALLS(errors(), {});
        steps::close_all();
        EXPECT_CALLS(mw.ledger_problems(), {});
        mw.reset();
    }
}

// Catches a forgotten capture that takes along the display connection of the other slot.
TEST_F(RecordingFailures, ACaptureThatIsForgottenTakesNoDisplayFromAnother)
{
    ASSERT_TRUE(steps::record(0) && steps::open(1) && steps::set_video(1) && steps::open(1));
    // Forgotten with the slot, or with the one registration that there is.
    for (const char* left : {"0x12", "0x22", "file out.ts", "0x11 is closed while its callback"})
        mw.tolerate_problem(left);
    forget();
    steps::stop(0);
    EXPECT_EQ(mw.count("ZU_CAP_DisconnectInput"), 1);
}

// Catches a failed start that closes devices which still run.
TEST_F(RecordingFailures, AStartThatFailsStopsTheSlotBeforeItClosesIt)
{
    SCREENRECORD_Init();
    ASSERT_TRUE(steps::open(0) && steps::set_video(0) && steps::set_mux(0));
    forget();
    mw.fail("ZU_CAP_CaptureStart");
    EXPECT_EQ(steps::start(0), 0u);
    std::vector<std::string> calls = mw.take_calls();
    std::erase_if(calls, [](const std::string& line) {
        return !line.starts_with("ZU_VENC_") && !line.starts_with("ZU_CAP_");
    });
    // the starts
    calls.erase(calls.begin(), calls.begin() + 2);
    EXPECT_CALLS(calls, {"ZU_CAP_UnRegisterCallback(0x11, id=0x1000000c1 mask=1)=0",
                         "ZU_CAP_DisconnectInput(0x11, 0xd0)=0",
                         "ZU_VENC_Stop(0x21)=0", // here ends the stop
                         "ZU_VENC_Stop(0x21)=0", "ZU_CAP_Close(0x11)=0", "ZU_VENC_Stop(0x21)=0",
                         "ZU_VENC_Close(0x21)=0"});
}

// Catches a reserved destination opened as a file, and a slot that stays open without its file.
TEST_F(RecordingFailures, ADestinationThatIsNoFileClosesTheSlot)
{
    SCREENRECORD_Init();
    forget();
    EXPECT_EQ(steps::open(0, "wifi"), 0u);
    EXPECT_CALLS(errors(), {"E [SCREENRECORD_Open]no support!!"});
    EXPECT_EQ(mw.count("ZU_FS_Fopen"), 0);
    mw.fail("ZU_FS_Fopen");
    EXPECT_EQ(steps::open(0), 0u);
    EXPECT_EQ(_astSlotCtrl[0].stSrcInfo.pu8DstName, nullptr)
        << "a slot whose file cannot be made is closed";
    for (const char* name : {"Wifi", "wifi2"}) {
        EXPECT_EQ(steps::open(0, name), 1u) << name;
        steps::close(0);
    }
}

// Catches a multiplexer that is opened on memory without an address.
TEST_F(RecordingFailures, ARegionWithoutAddressIsRefused)
{
    SCREENRECORD_Init();
    ASSERT_TRUE(steps::open(0) && steps::set_audio(0));
    forget();
    mw.fail("ZU_OS_Pa2NonCachedVa");
    mw.fail("ZU_OS_Pa2CachedVa");
    EXPECT_EQ(steps::set_mux(0), 0u);
    EXPECT_CALLS(errors(),
                 {"E [_SCREENRECORD_OpenTsmux]phyMemAddr: 0x2000000 phyMiuBaseAddr: 0x100000000",
                  "E [_SCREENRECORD_OpenTsmux]Error: failed to ZU_OS_PA2CachedVA(0x2000000)",
                  "E [SCREENRECORD_SetTsMux][DEMO TRANSCODE] Open Tsmux Failed!"});
}

// Catches an internal call that uses a null record, or calls the device for an unknown module.
TEST_F(RecordingFailures, NoRecordAndNoSuchModuleAreRefusedUntouched)
{
    _bSysInited = 1;
    SCREENRECORD_SlotCtrl_s* slot = &_astSlotCtrl[0];
    SCREENRECORD_TaskCtrl_s unknown;
    unknown.eModule = E_SCREENRECORD_MODULE_MAX;
    unknown.u32Handle = 1;
    SCREENRECORD_TaskCtrl_s encoder;
    encoder.eModule = VENC;
    EXPECT_EQ(_SCREENRECORD_OpenVenc(slot, nullptr), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(_SCREENRECORD_OpenVcap(slot, nullptr), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(_SCREENRECORD_OpenSrcReader(nullptr, &encoder), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(_SCREENRECORD_OpenSrcReader(slot, nullptr), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(_SCREENRECORD_OpenSrcReader(slot, &encoder), ZU_INVALID_ARGUMENT) << "no reader";
    EXPECT_EQ(_SCREENRECORD_InitModule(E_SCREENRECORD_MODULE_MAX), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(_SCREENRECORD_StartModule(nullptr, 0), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(_SCREENRECORD_StartModule(&unknown, 0), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(_SCREENRECORD_StopModule(&unknown), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(_SCREENRECORD_CreateTask(nullptr, 0, 0, nullptr), ZU_INVALID_ARGUMENT);
    for (auto* of_a_record :
         {_SCREENRECORD_StopModule, _SCREENRECORD_CloseSrcReader, _SCREENRECORD_CloseVcap,
          _SCREENRECORD_CloseAcap, _SCREENRECORD_CloseVenc, _SCREENRECORD_CloseTsmux,
          _SCREENRECORD_DeleteTask})
        EXPECT_EQ(of_a_record(nullptr), ZU_INVALID_ARGUMENT);
    EXPECT_CALLS(mw.take_calls(), {});
}

} // namespace
