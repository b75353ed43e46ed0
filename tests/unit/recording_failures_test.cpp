/** Refusals of a recording's control calls and of the modules' functions, and their order. */

#include "modules/module.h"
#include "modules/source_reader.h"
#include <srglworker/SrGlWorker.h>

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

// Catches a device or descriptor that leaks because the call that opened it answers a failure.
TEST_F(RecordingFailures, WhatAFailingCallHasOpenedIsClosed)
{
    mw.offer_inject_buffer(64 * 64 * 2);
    mw.settings.first_fd = 4;
    const auto record = [] { return steps::record(0) == 1; };
    const auto encode = [] { return steps::capture_encode(64, 64); };
    const auto take_stills = [] {
        Cap_OpenParams params = {64, 64, 0, 0, 1};
        return video_cap_open(&params) == 0;
    };
    const struct {
        const char* failing;
        std::function<bool()> call;
        bool closes_at_once = true;
    } cases[] = {
        {"ZU_VENC_Open", record},
        {"ZU_CAP_Open", record},
        {"ZU_ACAP_Open", record},
        {"ZU_TSMUX_Open", record},
        {"ZU_TSMUX_AttachMediaSource", record},
        {"ZU_OS_CreateTask", record},
        {"ZU_OS_CreateMutex", record},
        {"ZU_TSMUX_Start", record},
        {"ZU_CAP_Open", take_stills},
        {"ZU_CAP_Open", encode},
        {"ZU_VENC_Open", encode},
        {"ZU_ACAP_Open", [] { return audio_cap_open() == 0; }, false},
        {"ZU_OS_IommuOperation:GET_BUFFD",
         [&] { return encode() && video_capenc_setWatermark(android::WatermarkParams()) == 0; },
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        mw.fail(c.failing, {.takes_effect = true});
        EXPECT_FALSE(c.call());
        EXPECT_FALSE(mw.script_pending());
        EXPECT_TRUE(!c.closes_at_once || slot_is_closed(0));
        steps::close_all();
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

// Catches a forgotten capture that ends the display connection of the other slot.
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

// Catches a device call for a module that does not exist, or that is no reader.
TEST_F(RecordingFailures, NoSuchModuleIsRefusedUntouched)
{
    _bSysInited = 1;
    SCREENRECORD_TaskCtrl_s unknown, encoder;
    unknown.eModule = E_SCREENRECORD_MODULE_MAX;
    unknown.u32Handle = 1;
    encoder.eModule = VENC;
    EXPECT_EQ(_SCREENRECORD_OpenSrcReader(&_astSlotCtrl[0], &encoder), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(_SCREENRECORD_InitModule(E_SCREENRECORD_MODULE_MAX), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(_SCREENRECORD_StartModule(&unknown, 0), ZU_INVALID_ARGUMENT);
    EXPECT_EQ(_SCREENRECORD_StopModule(&unknown), ZU_INVALID_ARGUMENT);
    EXPECT_CALLS(mw.take_calls(), {});
    forget();
    EXPECT_EQ(_SCREENRECORD_CloseSrcReader(&unknown), ZU_OK);
    EXPECT_CALLS(errors(), {"E [_SCREENRECORD_StopModule]INVALID ModuleID Id!",
                            "E [_SCREENRECORD_CloseSrcReader]SCREENRECORD_StopModule Failed!"});
}

} // namespace
