/** The good way of a recording, call by call: a changed order or argument is a fault on the device. */
#include "library_test.h"

namespace {

using RecordingCalls = LibraryTest;

TEST_F(RecordingCalls, InitBringsUpEachModuleOnceAndDeInitUndoesOnlyItsOwn)
{
    mw.fail("ZU_VENC_Init", {.result = ZU_ALREADY_INITIALISED});
    EXPECT_EQ(SCREENRECORD_Init(), 1u);
    EXPECT_CALLS(mw.take_calls(), {"ZU_SYS_Init(0)=0", "ZU_ACAP_Init(0)=0", "ZU_VENC_Init(0)=2",
                                   "ZU_TSMUX_Init(0)=0", "ZU_VIDEO_GetCaps()=0", "ZU_VENC_GetCaps()=0",
                                   "ZU_AUDIO_GetCaps()=0", "ZU_ACAP_GetCaps()=0"});
    EXPECT_EQ(SCREENRECORD_Init(), 1u);
    EXPECT_CALLS(mw.take_calls(), {});
    mw.take_logs();

    EXPECT_EQ(SCREENRECORD_DeInit(), 1u);
    EXPECT_CALLS(mw.take_calls(),
                 {"ZU_FS_Sync()=0", "ZU_FS_Sync()=0", "ZU_ACAP_DeInit()=0", "ZU_TSMUX_DeInit()=0"});
    EXPECT_EQ(SCREENRECORD_DeInit(), 0u);
    std::vector<std::string> deinited;
    for (u32 module = 0; module < E_SCREENRECORD_MODULE_MAX; module++)
        deinited.push_back("D [_SCREENRECORD_DeInitModule][DEMO TRANSCODE] Module " + std::to_string(module) +
                           " has Deinited");
    std::vector<std::string> logs = mw.take_logs();
    EXPECT_CALLS(std::vector<std::string>(logs.end() - 7, logs.end()), deinited);

    EXPECT_EQ(SCREENRECORD_Init(), 1u);
    EXPECT_EQ(mw.count("ZU_SYS_Init"), 0) << "the system is initialised once a process";
}

TEST_F(RecordingCalls, ScreenAndSoundFromOpenToClose)
{
    SCREENRECORD_Init();
    forget();
    ASSERT_EQ(steps::open(0), 1u);
    ASSERT_EQ(steps::set_audio(0), 1u);
    EXPECT_CALLS(mw.take_calls(),
                 {"ZU_FS_Fopen(out.ts, wb)=2147483889 h=0x800000f1", "ZU_ACAP_Open(name=acap_s)=0 h=0x31",
                  "ZU_ACAP_RegisterCallback(0x31, mask=1)=0 id=0x1000000c1",
                  "ZU_ACAP_SetVolume(0x31, 100)=0"});
    ASSERT_EQ(steps::set_video(0, "cap", nullptr, 1280, 720), 1u);
    EXPECT_CALLS(
        mw.take_calls(),
        {"ZU_VENC_Open(name=venc0 color=0 1280x720@30 bitrate=1048576 profile=0 level=0 codec=1)=0 h=0x21",
         "ZU_CAP_Open(path=0)=0 h=0x11", "ZU_DISP_GetHandle(name=ZU_DISP_HD0)=0 h=0xd0",
         "ZU_CAP_ConnectInput(0x11, 0xd0, port=0)=0",
         "ZU_CAP_RegisterCallback(0x11, mask=1)=0 id=0x1000000c2"});
    ASSERT_EQ(steps::set_mux(0, 192, 2), 1u);
    EXPECT_CALLS(mw.take_calls(),
                 {"ZU_SYS_GetMmapLayout(306)=0", "ZU_OS_Pa2NonCachedVa(0x102000000)=0",
                  "ZU_OS_FlushMemory()=0",
                  "ZU_TSMUX_Open(packet=192 cbr=1 rate=2097152 size=2097152)=0 h=0x41",
                  "ZU_TSMUX_RegisterCallback(0x41, mask=3)=0 id=0x1000000c3",
                  "ZU_TSMUX_SetAttr(0x41, 0x203, {1, 180000, 90000})=0",
                  "ZU_TSMUX_AttachMediaSource(0x41, type=0x4 pid=0x101 stream=0xe0)=0 id=0x100000051",
                  "ZU_TSMUX_AttachMediaSource(0x41, type=0x104 pid=0x102 stream=0xc0)=0 "
                  "id=0x100000052",
                  "ZU_TSMUX_SetAttr(0x41, 0x200, {1, 1000})=0"});
    mw.hold_tasks(); // its passes would stand between the calls in any place
    ASSERT_EQ(steps::start(0), 1u);
    EXPECT_CALLS(
        mw.take_calls(),
        {"ZU_OS_CreateMutex(name=Tscode: 6)=0 m0",
         "ZU_OS_CreateTask(name=Tscode:6 priority=4 stack=133120 start=1)=0 t1", "ZU_TSMUX_Start(0x41, 0)=0",
         "ZU_OS_CreateMutex(name=Tscode: 4)=0 m1", "ZU_VENC_Start(0x21, 0)=0", "ZU_ACAP_Start(0x31, 0)=0",
         "ZU_CAP_CaptureStart(0x11, path=0 osd=0 1280x736@30 format=5 size=2867200 pitch=0 fd=-1 virt=0 "
         "phys=0x0)=0"});
    EXPECT_EQ(steps::start(0), 1u);
    EXPECT_CALLS(mw.take_calls(), {});
    mw.take_logs();

    EXPECT_EQ(steps::stop(0), 1u);
    EXPECT_CALLS(mw.take_calls(),
                 {"ZU_CAP_CaptureStop(0x11)=0", "ZU_CAP_UnRegisterCallback(0x11, id=0x1000000c2)=0",
                  "ZU_CAP_DisconnectInput(0x11, 0xd0)=0", "ZU_ACAP_Stop(0x31)=0", "ZU_VENC_Stop(0x21)=0",
                  "ZU_OS_DeleteMutex(m1)=0"});
    EXPECT_EQ(steps::close(0), 1u);
    EXPECT_CALLS(mw.take_calls(),
                 {"ZU_ACAP_Stop(0x31)=0", "ZU_VENC_Stop(0x21)=0", "ZU_CAP_Close(0x11)=0",
                  "ZU_ACAP_Stop(0x31)=0", "ZU_ACAP_UnRegisterCallback(0x31, id=0x0)=0",
                  "ZU_ACAP_Close(0x31)=0", "ZU_TSMUX_SetAttr(0x41, 0x200, {0, 0})=0", "ZU_VENC_Stop(0x21)=0",
                  "ZU_VENC_Close(0x21)=0", "ZU_TSMUX_DetachMediaSource(0x41, 0x100000051)=0",
                  "ZU_TSMUX_UnRegisterCallback(0x41, id=0x1000000c3)=0", "ZU_TSMUX_SetAttr(0x41, 0x202, 1)=0",
                  "ZU_TSMUX_Stop(0x41)=0", "ZU_OS_DeleteTask(t1)=0", "ZU_OS_DeleteMutex(m0)=0",
                  "ZU_TSMUX_Close(0x41)=0", "ZU_OS_FlushMemory()=0", "ZU_FS_Fclose(0x800000f1)=0",
                  "ZU_FS_Sync()=0"});
    EXPECT_TRUE(errors().empty());
    EXPECT_TRUE(slot_is_closed(0));

    EXPECT_EQ(steps::close(0), 1u);
    EXPECT_CALLS(mw.take_calls(), {"ZU_FS_Sync()=0"});
}

TEST_F(RecordingCalls, FilesAsSourcesOnTheOtherSlotWhileTheFirstRecords)
{
    ASSERT_TRUE(steps::record(0));
    mw.add_file("screen.nv12", middleware::Bytes(16));
    mw.add_file("sound.aac", middleware::Bytes(16));
    ASSERT_EQ(steps::open(1, "second.ts"), 1u);
    forget();
    ASSERT_EQ(steps::set_audio(1, "sound.aac", "aac"), 1u);
    ASSERT_EQ(steps::set_video(1, "screen.nv12", "h264"), 1u);
    EXPECT_CALLS(
        mw.take_calls(),
        {"ZU_FS_Fopen(sound.aac, rb)=2147483891 h=0x800000f3", "ZU_FS_Fseek(0x800000f3, 0, 0)=0",
         "ZU_VENC_Open(name=venc0 color=0 640x480@30 bitrate=1048576 profile=0 level=0 codec=1)=0 h=0x22",
         "ZU_FS_Fopen(screen.nv12, rb)=2147483892 h=0x800000f4", "ZU_FS_Fseek(0x800000f4, 0, 0)=0"});
    EXPECT_EQ(task(1, E_SCREENRECORD_MODULE_VIDEO_SRC_READER).u32Handle, 0xf4u) << "the mark has no top bit";
    ASSERT_EQ(steps::set_mux(1), 1u);
    ASSERT_EQ(steps::start(1), 1u);
    EXPECT_EQ(steps::close(1), 1u);
    EXPECT_EQ(mw.count("ZU_FS_Fclose"), 3);
    EXPECT_TRUE(slot_is_closed(1));
    EXPECT_EQ(task(0, E_SCREENRECORD_MODULE_VCAP).bRunning, 1) << "the other slot records on";
}

TEST_F(RecordingCalls, PacketSizeAndRateAreGivenToTheMultiplexerAsDocumented)
{
    struct Case {
        const u32* packet_size;
        const u32* rate;
        u32 expected_size, expected_rate;
        u8 expected_cbr;
    };
    const u32 s192 = 192, s188 = 188, s100 = 100, r8 = 8, r0 = 0, r4096 = 4096;
    const Case cases[] = {
        {&s192, &r8, 192, 8388608, 1}, {&s188, &r0, 188, 0, 0},    {&s100, nullptr, 188, 0, 0},
        {nullptr, nullptr, 192, 0, 0}, {&s188, &r4096, 188, 0, 1},
    };
    SCREENRECORD_Init();
    for (const Case& c : cases) {
        u32 slot = 0;
        ASSERT_TRUE(steps::open(0) && steps::set_video(0));
        ASSERT_EQ(SCREENRECORD_SetTsMux(&slot, const_cast<u32*>(c.packet_size), const_cast<u32*>(c.rate)),
                  1u);
        const auto params = mw.last<ZU_TSMUX_OpenParams_t>("ZU_TSMUX_Open");
        EXPECT_EQ(params.u32TsPacketSize, c.expected_size);
        EXPECT_EQ(params.u32CbrBitrate, c.expected_rate);
        EXPECT_EQ(params.bCbrEnable, c.expected_cbr);
        EXPECT_EQ(_astSlotCtrl[0].stSrcInfo.u32TsPacketSize, c.packet_size ? c.expected_size : 0);
        const u8 ids[] = {0, 0x10, 0, 1, 0, 1, 1, 1};
        EXPECT_EQ(memcmp(&params.u16Pid0, ids, sizeof(ids)), 0);
        EXPECT_EQ(mw.count("ZU_TSMUX_AttachMediaSource"), 1) << "video alone";
        EXPECT_EQ(mw.calls_of({"ZU_TSMUX_SetAttr(0x41, 0x200"}).size(), 0u) << "nothing to interleave";
        steps::close(0);
        mw.take_calls();
    }
}

TEST_F(RecordingCalls, AnOutputBufferThatIsMappedCachedIsFlushed)
{
    SCREENRECORD_Init();
    ASSERT_TRUE(steps::open(0) && steps::set_audio(0));
    mw.fail("ZU_OS_Pa2NonCachedVa");
    ASSERT_EQ(steps::set_mux(0), 1u);
    EXPECT_EQ(mw.count("ZU_OS_DcacheFlush"), 1);
    EXPECT_EQ(mw.count("ZU_OS_FlushMemory"), 1);
    steps::close(0);
    EXPECT_EQ(mw.count("ZU_OS_DcacheFlush"), 2) << "again when it is given up";
}

TEST_F(RecordingCalls, CodecNamesDecideWhatIsOpened)
{
    struct Case {
        const char* name;
        u32 accepted;
        u32 codec;
        const char* error;
    };
    const Case videos[] = {
        {nullptr, 1, 1, nullptr},
        {"", 1, 1, nullptr},
        {"auto", 1, 1, nullptr},
        {"default", 1, 1, nullptr},
        {"h264", 1, 1, nullptr},
        {"mpeg4", 1, 0, "Venc unsupport!"},
        {"mpeg1", 0, 0, "Venc unsupport!"},
        {"mpeg2", 0, 0, "Venc unsupport!"},
        {"h265", 0, 0, "Venc unsupport!"},
        {"H264", 0, 0, "[Demo Venc] Invalid VENC type!"},
    };
    SCREENRECORD_Init();
    for (const Case& c : videos) {
        SCOPED_TRACE(c.name ? c.name : "(null)");
        ASSERT_EQ(steps::open(0), 1u);
        forget();
        EXPECT_EQ(steps::set_video(0, "cap", c.name), c.accepted);
        std::vector<std::string> expected;
        if (c.error)
            expected.push_back(error_of("_SCREENRECORD_GetVencSrcType", c.error));
        if (!c.accepted)
            expected.push_back(error_of("SCREENRECORD_SetVideo", "Error: invalid Venc Type"));
        EXPECT_CALLS(errors(), expected);
        EXPECT_EQ(mw.last<ZU_VENC_OpenParams_t>("ZU_VENC_Open").eCodecType, c.accepted ? c.codec : 0u);
        steps::close(0);
    }
    const Case audios[] = {
        {nullptr, 1, 0, nullptr},
        {"aac", 1, 0, nullptr},
        {"mp3", 1, 1, "Aenc unsupport!"},
        {"avs", 0, 0, "Aenc unsupport!"},
        {"mpeg1", 0, 0, "Aenc unsupport!"},
        {"ac3", 0, 0, "Aenc unsupport!"},
        {"eac3", 0, 0, "Aenc unsupport!"},
        {"heaac", 0, 0, "Aenc unsupport!"},
        {"wav", 0, 0, "[Demo Venc] Invalid AENC type!"},
    };
    for (const Case& c : audios) {
        SCOPED_TRACE(c.name ? c.name : "(null)");
        ASSERT_EQ(steps::open(0), 1u);
        forget();
        EXPECT_EQ(steps::set_audio(0, "cap", c.name), c.accepted);
        std::vector<std::string> expected;
        if (c.error)
            expected.push_back(error_of("_SCREENRECORD_GetAencSrcType", c.error));
        if (!c.accepted)
            expected.push_back(error_of("SCREENRECORD_SetAudio", "Error: invalid AENC Type!"));
        EXPECT_CALLS(errors(), expected);
        EXPECT_EQ(mw.count("ZU_ACAP_Open"), c.accepted && c.codec == 0 ? 1 : 0) << "MP3 opens no capture";
        steps::close(0);
    }
}

TEST_F(RecordingCalls, SourceNamesDecideWhatIsOpened)
{
    struct Case {
        const char* name;
        bool codec_is_looked_at;
    };
    SCREENRECORD_Init();
    for (const Case& c :
         {Case{"ab.ts", false}, Case{"a.ts", true}, Case{"cap2", true}, Case{"x.ts.nv12", true}}) {
        SCOPED_TRACE(c.name);
        mw.add_file(c.name, middleware::Bytes(16));
        ASSERT_EQ(steps::open(0), 1u);
        EXPECT_EQ(steps::set_video(0, c.name, "nonsense"), c.codec_is_looked_at ? 0u : 1u);
        steps::close(0);
        ASSERT_EQ(steps::open(0), 1u);
        EXPECT_EQ(steps::set_video(0, c.name, "h264"), 1u);
        EXPECT_EQ(mw.count("ZU_CAP_Open"), 0);
        EXPECT_EQ(mw.last<ZU_VENC_OpenParams_t>("ZU_VENC_Open").eCodecType, c.codec_is_looked_at ? 1u : 0u);
        steps::close(0);
    }
    ASSERT_EQ(steps::open(0), 1u);
    forget();
    EXPECT_EQ(steps::set_audio(0, "a.aac", "mp3"), 0u);
    EXPECT_CALLS(errors(), {error_of("_SCREENRECORD_GetAencSrcType", "Aenc unsupport!"),
                            error_of("SCREENRECORD_SetAudio", "Error: only aac could support file source")});
}

TEST_F(RecordingCalls, SizesUpToTheEncodersLimitsAreTakenAndRoundedForTheCapture)
{
    struct Case {
        u32 width, height, rate;
        u32 accepted;
        u32 capture_width, capture_height, size;
    };
    const Case cases[] = {
        {0, 0, 0, 1, 640, 480, 942080},
        {1920, 1080, 30, 1, 1920, 1088, 6266880},
        {1280, 720, 60, 1, 1280, 736, 2867200},
        {1366, 768, 30, 1, 1376, 768, 3170304},
        {3840, 2160, 120, 1, 3840, 2176, 25067520},
        {3841, 2160, 30, 0, 0, 0, 0},
        {3840, 2161, 30, 0, 0, 0, 0},
        {64, 64, 121, 0, 0, 0, 0},
        {0xFFFFFFFF, 0xFFFFFFFF, 30, 0, 0, 0, 0},
    };
    SCREENRECORD_Init();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.width);
        ASSERT_EQ(steps::open(0), 1u);
        forget();
        EXPECT_EQ(steps::set_video(0, "cap", nullptr, c.width, c.height, c.rate), c.accepted);
        if (!c.accepted) {
            EXPECT_CALLS(errors(), {error_of("_SCREENRECORD_OpenVenc", "Venc Support!"),
                                    error_of("SCREENRECORD_SetVideo", "[DEMO TRANSCODE] Open Venc Failed!")});
            EXPECT_TRUE(slot_is_closed(0));
            continue;
        }
        ASSERT_TRUE(steps::set_mux(0) && steps::start(0));
        const auto output = mw.last<ZU_CAP_CaptureParams_t>("ZU_CAP_CaptureStart").stOutput;
        EXPECT_EQ(output.u32OutWidth, c.capture_width);
        EXPECT_EQ(output.u32OutHeight, c.capture_height);
        EXPECT_EQ(output.u32OutSize, c.size);
        steps::close(0);
    }
    // An encoder that claims to take anything must not make a huge picture wrap into a small one.
    SCREENRECORD_DeInit();
    mw.settings.encoder.u32MaxWidth = mw.settings.encoder.u32MaxHeight = 0xFFFFFFFF;
    SCREENRECORD_Init();
    mw.take_calls();
    for (const u32 size : {65536u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        ASSERT_EQ(steps::open(0), 1u);
        EXPECT_EQ(steps::set_video(0, "cap", nullptr, size, size), 0u) << size;
        EXPECT_EQ(mw.count("ZU_CAP_Open"), 0) << "none for a refused size";
    }
}

TEST_F(RecordingCalls, OneCallRunsTheWholeSequenceOnSlotZero)
{
    ASSERT_EQ(steps::one_call(0), 0);
    EXPECT_EQ(mw.last<ZU_VENC_OpenParams_t>("ZU_VENC_Open").u32Width, 640u);
    EXPECT_EQ(task(0, E_SCREENRECORD_MODULE_VCAP).bRunning, 1);
    EXPECT_EQ(steps::one_call(7), -1);
    EXPECT_EQ(errors().back(), error_of("startScreenRecord", "SCREENRECORD_Open Fail"));
    EXPECT_EQ(_u32RecordTime, 7u) << "kept after a failure";
    EXPECT_EQ(stopScreenRecord(), 0);
    EXPECT_EQ(_u32RecordTime, 0u);
    EXPECT_TRUE(slot_is_closed(0));
    EXPECT_EQ(stopScreenRecord(), 0) << "a closed slot stops and closes again";
    SCREENRECORD_DeInit();
    EXPECT_EQ(stopScreenRecord(), -1);

    struct Failure {
        const char* call;
        u8 type;
        const char* file;
        const char* error;
    };
    const Failure failures[] = {
        {"ZU_TSMUX_Init", 0, "out.ts", "SCREENRECORD_Init Fail"},
        {nullptr, 0, nullptr, "SCREENRECORD_Open Fail"},
        {"ZU_ACAP_Open", 0, "out.ts", "SCREENRECORD_SetAudio Fail"},
        {nullptr, 'x', "out.ts", "SCREENRECORD_SetVideo Fail"},
        {"ZU_TSMUX_Open", 0, "out.ts", "SCREENRECORD_SetTsMux Fail"},
        {"ZU_TSMUX_Start", 0, "out.ts", "SCREENRECORD_Start Fail"},
    };
    for (const Failure& f : failures) {
        if (f.call)
            mw.fail(f.call);
        EXPECT_EQ(startScreenRecord(0, 0, 0, 0, 0, 0, f.type, steps::text(f.file)), -1);
        EXPECT_EQ(errors().back(), error_of("startScreenRecord", f.error));
        EXPECT_TRUE(slot_is_closed(0));
    }
}

} // namespace
