/** What a recording's control calls refuse and in which order, and what is left after each call that fails.
 */
#include "library_test.h"

namespace {

using RecordingFailures = LibraryTest;

constexpr const char* busy = "Some modules are Transcoding now, please stop transcoding first! ";

TEST_F(RecordingFailures, ChecksComeInTheirOrderAndChangeNothing)
{
    using Operation = u32 (*)(u32*);
    struct Case {
        const char* name;
        Operation call;
        bool refuses_running;
        const char* last_check; /**< the argument check behind the common ones, none = no argument */
    };
    const Case cases[] = {
        {"SCREENRECORD_Open", [](u32* slot) { return SCREENRECORD_Open(slot, nullptr); }, true,
         "Error: invalid destination file name"},
        {"SCREENRECORD_SetVideo",
         [](u32* slot) { return SCREENRECORD_SetVideo(slot, nullptr, nullptr, nullptr, nullptr, nullptr); },
         true, "Error: invalid Source name"},
        {"SCREENRECORD_SetAudio",
         [](u32* slot) { return SCREENRECORD_SetAudio(slot, nullptr, nullptr, nullptr); }, true,
         "Error: invalid Source name"},
        {"SCREENRECORD_SetTsMux", [](u32* slot) { return SCREENRECORD_SetTsMux(slot, nullptr, nullptr); },
         true, "Need to Assign one source!"},
        {"SCREENRECORD_Start", [](u32* slot) { return SCREENRECORD_Start(slot); }, false,
         "Need to Assign one source!"},
        {"SCREENRECORD_Stop", [](u32* slot) { return SCREENRECORD_Stop(slot); }, false, nullptr},
        {"SCREENRECORD_Close", [](u32* slot) { return SCREENRECORD_Close(slot); }, false, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        u32 slot = 0, none = 2;
        const std::string at = "[" + std::string(c.name) + "]";
        forget();
        EXPECT_EQ(c.call(nullptr), 0u);
        EXPECT_EQ(c.call(&none), 0u);
        EXPECT_EQ(c.call(&slot), 0u);
        EXPECT_CALLS(mw.take_logs(), {"E " + at + "INVALID Trancode Id!", "E " + at + "INVALID Trancode Id!",
                                      "D " + at + "init module first!"});
        EXPECT_CALLS(mw.take_calls(), {});
        ASSERT_EQ(SCREENRECORD_Init(), 1u);
        if (c.last_check) {
            forget();
            EXPECT_EQ(c.call(&slot), 0u);
            EXPECT_CALLS(mw.take_logs(), {"E " + at + c.last_check});
        }
        if (c.refuses_running) {
            ASSERT_TRUE(steps::record(0));
            forget();
            EXPECT_EQ(c.call(&slot), 0u);
            EXPECT_CALLS(mw.take_logs(), {"D " + at + busy});
            EXPECT_EQ(task(0, E_SCREENRECORD_MODULE_VCAP).bRunning, 1);
            steps::close(0);
        }
        SCREENRECORD_DeInit();
    }
}

TEST_F(RecordingFailures, StartAsksForSourceMultiplexerAndFileInThatOrder)
{
    SCREENRECORD_Init();
    forget();
    EXPECT_EQ(steps::start(0), 0u);
    steps::open(0);
    steps::set_video(0);
    EXPECT_EQ(steps::start(0), 0u);
    steps::set_mux(0);
    const u32 file = task(0, E_SCREENRECORD_MODULE_TSMUX).u32OutFile.Exchange(0);
    EXPECT_EQ(steps::start(0), 0u);
    EXPECT_CALLS(errors(), {error_of("SCREENRECORD_Start", "Need to Assign one source!"),
                            error_of("SCREENRECORD_Start", "[DEMO TRANCODE] Please Set Mux First!"),
                            error_of("SCREENRECORD_Start", "[DEMO TRANCODE] Please Open Transcode First!")});
    task(0, E_SCREENRECORD_MODULE_TSMUX).u32OutFile = file;
}

TEST_F(RecordingFailures, ADestinationCalledWifiIsNoFile)
{
    SCREENRECORD_Init();
    forget();
    EXPECT_EQ(steps::open(0, "wifi"), 0u);
    EXPECT_CALLS(errors(), {error_of("SCREENRECORD_Open", "no support!!")});
    EXPECT_EQ(mw.count("ZU_FS_Fopen"), 0);
    for (const char* name : {"Wifi", "wifi2"}) {
        EXPECT_EQ(steps::open(0, name), 1u) << name;
        steps::close(0);
    }
}

/** A middleware call that fails, and what the client then hears. */
struct Failure {
    const char* call;
    u32 result;
    std::vector<std::string> errors;
};

/** Lets each call fail in turn; `step` must fail, say what it says, and leave nothing open. */
template <class Prepare, class Step>
void expect_failures(middleware::Middleware& mw, const std::vector<Failure>& failures, Prepare prepare,
                     Step step, const std::function<std::vector<std::string>()>& errors)
{
    for (const Failure& f : failures) {
        SCOPED_TRACE(f.call);
        ASSERT_TRUE(prepare());
        mw.take_logs();
        mw.fail(f.call, {.result = f.result});
        EXPECT_EQ(step(), 0u);
        EXPECT_FALSE(mw.script_pending());
        EXPECT_CALLS(errors(), f.errors);
        EXPECT_EQ(_astSlotCtrl[0].stSrcInfo.pu8DstName, nullptr) << "the slot is closed";
        SCREENRECORD_DeInit();
        EXPECT_CALLS(mw.ledger_problems(), {});
    }
}

TEST_F(RecordingFailures, EveryFailingCallOfInitIsUndone)
{
    const std::vector<Failure> failures = {
        {"ZU_ACAP_Init",
         7,
         {error_of("_SCREENRECORD_InitModule", "Failed to ZU_ACAP_Init(...)!"),
          error_of("SCREENRECORD_Init", "Failed to ZU_ACAP_Init(...)!")}},
        {"ZU_VENC_Init",
         7,
         {error_of("_SCREENRECORD_InitModule", "Fail to call ZU_VENC_Init() 7"),
          error_of("SCREENRECORD_Init", "Failed to ZU_VENC_Init(...)!")}},
        {"ZU_TSMUX_Init",
         7,
         {error_of("_SCREENRECORD_InitModule", "Error 0x7: failed to ZU_TSMUX_Init()"),
          error_of("SCREENRECORD_Init", "Failed to ZU Tsmux Init(...)!")}},
    };
    for (const Failure& f : failures) {
        forget();
        mw.fail(f.call, {.result = f.result});
        EXPECT_EQ(SCREENRECORD_Init(), 0u);
        std::vector<std::string> expected = f.errors;
        expected.push_back(error_of("SCREENRECORD_DeInit", "SCREENRECORD_Close failed module: 0"));
        expected.push_back(error_of("SCREENRECORD_DeInit", "SCREENRECORD_Close failed module: 1"));
        EXPECT_CALLS(errors(), expected);
        EXPECT_CALLS(mw.ledger_problems(), {});
    }
    const char* capabilities[] = {"ZU_VIDEO_GetCaps", "ZU_VENC_GetCaps", "ZU_AUDIO_GetCaps",
                                  "ZU_ACAP_GetCaps"};
    for (int i = 0; i < 4; i++) {
        forget();
        mw.fail(capabilities[i]);
        EXPECT_EQ(SCREENRECORD_Init(), 1u) << "a capability that cannot be read does not fail it";
        EXPECT_EQ(errors().size(), 1u);
        EXPECT_EQ(mw.calls_of({"ZU_VIDEO_GetCaps", "ZU_VENC_GetCaps", "ZU_AUDIO_GetCaps", "ZU_ACAP_GetCaps"})
                      .size(),
                  size_t(i + 1))
            << "the first failure ends the queries";
        EXPECT_EQ(steps::open(0) && steps::set_video(0), i >= 2) << "without limits no size is accepted";
        SCREENRECORD_DeInit();
    }
}

TEST_F(RecordingFailures, EveryFailingCallOfTheConfigurationClosesTheSlot)
{
    const std::string video_failed = error_of("SCREENRECORD_SetVideo", "[DEMO TRANSCODE] Open Vcap Failed!");
    const std::string audio_failed = error_of("SCREENRECORD_SetAudio", "[DEMO TRANSCODE] Open Acap Failed!");
    const std::string mux_failed = error_of("SCREENRECORD_SetTsMux", "[DEMO TRANSCODE] Open Tsmux Failed!");
    const auto opened = [] { return SCREENRECORD_Init() && steps::open(0); };
    const auto my_errors = [this] {
        // The close that follows switches off the interleaving of a multiplexer that may not be open yet.
        std::vector<std::string> lines = errors();
        std::erase(lines, error_of("SCREENRECORD_Close", "Failed to ZU_TSMUX_SetAttr()"));
        return lines;
    };
    mw.tolerate_problem("ZU_TSMUX_SetAttr");

    expect_failures(
        mw,
        {{"ZU_FS_Fopen",
          0,
          {error_of("SCREENRECORD_Open", "Error: failed to ZU_FS_Fopen(out.ts) for output TS stream")}}},
        [] { return SCREENRECORD_Init(); }, [] { return steps::open(0); }, my_errors);
    expect_failures(
        mw,
        {{"ZU_VENC_Open",
          7,
          {error_of("_SCREENRECORD_OpenVenc", "Fail to call ZU_VENC_Open()"),
           error_of("SCREENRECORD_SetVideo", "[DEMO TRANSCODE] Open Venc Failed!")}},
         {"ZU_CAP_Open",
          7,
          {error_of("_SCREENRECORD_OpenVcap", "Failed to ZU_CAP_Open(0x7)!"), video_failed}},
         {"ZU_DISP_GetHandle",
          7,
          {error_of("_SCREENRECORD_ConnectDisp", "Fail to ZU_DISP_GetHandle "),
           error_of("_SCREENRECORD_OpenVcap", "Fail to Connect Disp!"), video_failed}},
         {"ZU_CAP_ConnectInput",
          7,
          {error_of("_SCREENRECORD_ConnectDisp", "Fail to connect disp"),
           error_of("_SCREENRECORD_OpenVcap", "Fail to Connect Disp!"), video_failed}}},
        opened, [] { return steps::set_video(0); }, my_errors);
    expect_failures(
        mw, {{"ZU_ACAP_Open", 7, {error_of("_SCREENRECORD_OpenAcap", "ZU_ACAP_OPEN FAIL"), audio_failed}}},
        opened, [] { return steps::set_audio(0); }, my_errors);
    expect_failures(
        mw,
        {{"ZU_FS_Fopen",
          0,
          {error_of("_SCREENRECORD_OpenSrcReader", "Error: failed to ZU_FS_Fopen(a.nv12) for Input Sourcen"),
           error_of("SCREENRECORD_SetVideo", "[DEMO TRANSCODE] Open Src File Reader Failed!")}}},
        opened, [] { return steps::set_video(0, "a.nv12"); }, my_errors);
    expect_failures(
        mw,
        {{"ZU_FS_Fopen",
          0,
          {error_of("_SCREENRECORD_OpenSrcReader", "Error: failed to ZU_FS_Fopen(a.aac) for Input Sourcen"),
           error_of("SCREENRECORD_SetAudio", "[DEMO TRANSCODE] Open AUDIO Src File Reader Failed!")}}},
        opened, [] { return steps::set_audio(0, "a.aac"); }, my_errors);
    expect_failures(
        mw,
        {{"ZU_SYS_GetMmapLayout",
          7,
          {error_of("_SCREENRECORD_OpenTsmux", "Error: Invalid mmap layout with id = 306"), mux_failed}},
         {"ZU_TSMUX_Open",
          7,
          {error_of("_SCREENRECORD_OpenTsmux", "Error 0x7: failed to ZU_TSMUX_Open()"), mux_failed}},
         {"ZU_TSMUX_RegisterCallback",
          7,
          {error_of("_SCREENRECORD_OpenTsmux", "Error 0x7: failed to ZU_TSMUX_RegisterCallback()"),
           mux_failed}},
         {"ZU_TSMUX_SetAttr:0x203",
          7,
          {error_of("_SCREENRECORD_OpenTsmux",
                    "Error 0x7: failed to ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL)"),
           mux_failed}},
         {"ZU_TSMUX_AttachMediaSource",
          7,
          {error_of("SCREENRECORD_SetTsMux", "Error 0x7: failed to Attach Venc Stream for Tsmux")}},
         {"ZU_TSMUX_SetAttr:0x200",
          7,
          {error_of("SCREENRECORD_SetTsMux",
                    "Error 0x7: failed to ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL, "
                    "leaving time "
                    "= 1000 ms)")}}},
        [] { return SCREENRECORD_Init() && steps::open(0) && steps::set_audio(0) && steps::set_video(0); },
        [] { return steps::set_mux(0); }, my_errors);
}

TEST_F(RecordingFailures, ARegionWithoutAddressOrSizeIsRefused)
{
    SCREENRECORD_Init();
    ASSERT_TRUE(steps::open(0) && steps::set_audio(0));
    forget();
    mw.fail("ZU_OS_Pa2NonCachedVa");
    mw.fail("ZU_OS_Pa2CachedVa");
    EXPECT_EQ(steps::set_mux(0), 0u);
    EXPECT_CALLS(errors(),
                 {error_of("_SCREENRECORD_OpenTsmux", "phyMemAddr: 0x2000000 phyMiuBaseAddr: 0x100000000"),
                  error_of("_SCREENRECORD_OpenTsmux", "Error: failed to ZU_OS_PA2CachedVA(0x2000000)"),
                  error_of("SCREENRECORD_SetTsMux", "[DEMO TRANSCODE] Open Tsmux Failed!")});
    mw.settings.output_region_size = 0;
    ASSERT_TRUE(steps::open(0) && steps::set_audio(0));
    EXPECT_EQ(steps::set_mux(0), 0u);
    EXPECT_EQ(errors().front(),
              error_of("_SCREENRECORD_OpenTsmux", "Error: Invalid mmap layout with id = 306"));
}

TEST_F(RecordingFailures, ACallbackThatCannotBeRegisteredClosesItsDevice)
{
    SCREENRECORD_Init();
    steps::open(0);
    forget();
    mw.fail("ZU_ACAP_RegisterCallback", {.result = 9});
    EXPECT_EQ(steps::set_audio(0), 0u);
    std::vector<std::string> lines = errors();
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines[0].find("] Error:9 Fail to register callback !."), std::string::npos) << lines[0];
    EXPECT_CALLS(mw.calls_of({"ZU_ACAP_Close"}), {"ZU_ACAP_Close(0x31)=0"});

    steps::open(0);
    forget();
    mw.fail("ZU_CAP_RegisterCallback");
    EXPECT_EQ(steps::set_video(0), 0u);
    EXPECT_CALLS(mw.calls_of({"ZU_CAP_Close", "ZU_CAP_DisconnectInput", "ZU_VENC_Close"}),
                 {"ZU_CAP_DisconnectInput(0x11, 0xd0)=0", "ZU_CAP_Close(0x11)=0", "ZU_VENC_Close(0x21)=0"});
    mw.tolerate_problem("ZU_TSMUX_SetAttr");
}

TEST_F(RecordingFailures, EveryFailingCallOfStartStopsTheModuleAndClosesTheSlot)
{
    const auto start_error = [](const char* text) { return error_of("SCREENRECORD_Start", text); };
    const auto module_error = [](const char* text) { return error_of("_SCREENRECORD_StartModule", text); };
    const auto task_error = [](const char* text) { return error_of("_SCREENRECORD_CreateTask", text); };
    expect_failures(
        mw,
        {{"ZU_OS_CreateMutex",
          7,
          {task_error("Fail to create Trancode mutex"),
           module_error("Error 0x3: failed to _SCREENRECORD_CreateTask()"),
           start_error("Error 0x3: failed to Start TSMUX")}},
         {"ZU_OS_CreateTask",
          7,
          {task_error("Failed to ZU_OS_CreateTask(...)!"),
           module_error("Error 0x3: failed to _SCREENRECORD_CreateTask()"),
           start_error("Error 0x3: failed to Start TSMUX")}},
         {"ZU_TSMUX_Start",
          7,
          {module_error("Error 0x7: failed to ZU_TSMUX_Start()"),
           start_error("Error 0x7: failed to Start TSMUX")}},
         {"ZU_VENC_Start",
          7,
          {module_error("Fail to call ZU_VENC_Start()"), start_error("Error 0x7: failed to Start VENC")}},
         {"ZU_ACAP_Start",
          7,
          {module_error("Failed to ZU_ACAP_Start(...)!"), start_error("Error 0x7: failed to Start ACAP")}},
         {"ZU_CAP_CaptureStart",
          7,
          {module_error("Failed to ZU_CAP_CaptureStart(...)!"),
           start_error("Error 0x7: failed to Start VCAP")}}},
        [] { return steps::configure(0); }, [] { return steps::start(0); }, [this] { return errors(); });

    mw.add_file("a.nv12", middleware::Bytes(16));
    mw.add_file("a.aac", middleware::Bytes(16));
    const struct {
        int nth; /**< mutexes are created for the multiplexer, the encoder and the two readers */
        const char* module;
        const char* start;
    } readers[] = {{3, "Failed to Create AUDIO Src Reader Handler Task(...)!",
                    "Error 0x3: failed to Start AUDIO SrcReader"},
                   {4, "Failed to Create VIDEO Src Reader Handler Task(...)!",
                    "Error 0x3: failed to Start VIDEO SrcReader"}};
    for (const auto& reader : readers) {
        ASSERT_TRUE(steps::configure(0, "a.nv12", "a.aac"));
        mw.take_logs();
        mw.fail("ZU_OS_CreateMutex", {.result = 7, .nth = reader.nth});
        EXPECT_EQ(steps::start(0), 0u);
        EXPECT_CALLS(errors(), {task_error("Fail to create Trancode mutex"), module_error(reader.module),
                                start_error(reader.start)});
        EXPECT_TRUE(slot_is_closed(0));
    }
}

TEST_F(RecordingFailures, NoFailureEndsAStopOrCloseEarly)
{
    const std::pair<const char*, std::string> failures[] = {
        {"ZU_CAP_CaptureStop", error_of("_SCREENRECORD_StopModule", "[DEMO TRANSCODE] ZU_VCAP_STOP FAIL")},
        {"ZU_CAP_UnRegisterCallback",
         error_of("_SCREENRECORD_UnRegisterCallback", "ZU_CAP_UnRegisterCallback fail! ")},
        {"ZU_CAP_DisconnectInput",
         error_of("_SCREENRECORD_StopModule", "[DEMO TRANSCODE] ZU_CAP_DisconnectInput FAIL")},
        {"ZU_ACAP_Stop", error_of("_SCREENRECORD_StopModule", "[DEMO TRANSCODE] ZU_ACAP_STOP FAIL")},
        {"ZU_VENC_Stop", error_of("_SCREENRECORD_StopModule", "[DEMO TRANSCODE] ZU_VENC_STOP FAIL")},
        {"ZU_CAP_Close", error_of("_SCREENRECORD_CloseVcap", "ZU_CAP_Close Failed")},
        {"ZU_ACAP_UnRegisterCallback",
         error_of("_SCREENRECORD_CloseAcap", "ZU_ACAP_UnRegisterCallback Failed")},
        {"ZU_ACAP_Close", error_of("_SCREENRECORD_CloseAcap", "ZU_ACAP_Close Failed")},
        {"ZU_TSMUX_SetAttr:0x200", error_of("SCREENRECORD_Close", "Failed to ZU_TSMUX_SetAttr()")},
        {"ZU_VENC_Close", error_of("_SCREENRECORD_CloseVenc", "ZU_VENC_Close Failed")},
        {"ZU_TSMUX_DetachMediaSource", error_of("SCREENRECORD_Close", "Failed to DetachMediaSource() Video")},
        {"ZU_TSMUX_UnRegisterCallback",
         error_of("_SCREENRECORD_StopModule",
                  "Error 0x3: failed to ZU_TSMUX_UnRegisterCallback(u64CallbackId = 0x")},
        {"ZU_TSMUX_SetAttr:0x202",
         error_of(
             "_SCREENRECORD_StopModule",
             "Error 0x3: failed to ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_IGNORE_REMAIN_MEDIA_DATA_WHEN_STOP, "
             "bForceStop = 1)")},
        {"ZU_TSMUX_Stop",
         error_of("_SCREENRECORD_StopModule", "Failed to ZU_TSMUX_Stop() with force stop = 1")},
        {"ZU_TSMUX_Close", error_of("_SCREENRECORD_CloseTsmux", "Failed to ZU_TSMUX_Close()")},
    };
    for (const auto& [call, error] : failures) {
        SCOPED_TRACE(call);
        ASSERT_TRUE(steps::record(0));
        mw.take_logs();
        mw.fail(call);
        EXPECT_EQ(steps::close(0), 1u);
        const std::vector<std::string> lines = errors();
        ASSERT_FALSE(lines.empty());
        EXPECT_TRUE(lines[0].starts_with(error)) << lines[0];
        EXPECT_TRUE(slot_is_closed(0));
        SCREENRECORD_DeInit();
        EXPECT_CALLS(mw.ledger_problems(), {});
    }
    ASSERT_TRUE(steps::record(0));
    mw.take_logs();
    mw.fail("ZU_FS_Fclose");
    EXPECT_EQ(steps::close(0), 0u) << "the output file's close is the one that counts";
    EXPECT_CALLS(errors(), {error_of("SCREENRECORD_Close", "ZU_FS_Fclose Failed!")});
    EXPECT_TRUE(slot_is_closed(0));
}

TEST_F(RecordingFailures, EveryAllocationThatFailsIsToldAndLeavesNothing)
{
    for (int number = 1;; number++) {
        SCOPED_TRACE(number);
        bool recorded = false;
        {
            const middleware::AllocationWindow window(number);
            recorded = steps::record(0);
            mw.settle(); // the writer allocates its batch on its own thread
            if (!window.failed()) {
                EXPECT_GE(number, 6) << "names, stack, argument block and batch are allocated";
                break;
            }
        }
        EXPECT_FALSE(errors().empty());
        if (recorded) {
            EXPECT_EQ(steps::close(0), 1u) << "without a batch the writer alone ends";
        }
        close_all();
        EXPECT_TRUE(slot_is_closed(0));
        EXPECT_CALLS(mw.ledger_problems(), {});
        EXPECT_EQ(middleware::library_allocations_left(), 0u);
        mw.take_logs();
    }
}

} // namespace
