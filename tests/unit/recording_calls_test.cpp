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

TEST_F(RecordingCalls, PacketSizeAndRateMayBeLeftOut)
{
    SCREENRECORD_Init();
    u32 slot = 0, size = 192, rate = 8;
    for (const bool given : {true, false}) {
        ASSERT_TRUE(steps::open(0) && steps::set_video(0));
        mw.take_calls();
        ASSERT_EQ(SCREENRECORD_SetTsMux(&slot, given ? &size : nullptr, given ? &rate : nullptr), 1u);
        const auto params = mw.last().multiplexer;
        EXPECT_EQ(params.u32TsPacketSize, 192u);
        EXPECT_EQ(params.u32CbrBitrate, given ? 8388608u : 0u);
        EXPECT_EQ(_astSlotCtrl[0].stSrcInfo.u32TsPacketSize, given ? 192u : 0u);
        const u8 ids[] = {0, 0x10, 0, 1, 0, 1, 1, 1};
        EXPECT_EQ(memcmp(&params.u16Pid0, ids, sizeof(ids)), 0);
        EXPECT_EQ(mw.count("ZU_TSMUX_AttachMediaSource"), 1) << "video alone";
        EXPECT_EQ(mw.calls_of({"ZU_TSMUX_SetAttr(0x41, 0x200"}).size(), 0u) << "nothing to interleave";
        steps::close(0);
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
        bool video;
        const char* name;
        u32 accepted;
        u32 codec;
        const char* error;
    };
    const char* const none = nullptr;
    const char *const no_venc = "Venc unsupport!", *const no_aenc = "Aenc unsupport!";
    const Case cases[] = {
        {true, nullptr, 1, 1, none},
        {true, "", 1, 1, none},
        {true, "auto", 1, 1, none},
        {true, "default", 1, 1, none},
        {true, "h264", 1, 1, none},
        {true, "mpeg4", 1, 0, no_venc},
        {true, "mpeg1", 0, 0, no_venc},
        {true, "mpeg2", 0, 0, no_venc},
        {true, "h265", 0, 0, no_venc},
        {true, "H264", 0, 0, "[Demo Venc] Invalid VENC type!"},
        {false, nullptr, 1, 0, none},
        {false, "aac", 1, 0, none},
        {false, "mp3", 1, 1, no_aenc},
        {false, "avs", 0, 0, no_aenc},
        {false, "mpeg1", 0, 0, no_aenc},
        {false, "ac3", 0, 0, no_aenc},
        {false, "eac3", 0, 0, no_aenc},
        {false, "heaac", 0, 0, no_aenc},
        {false, "wav", 0, 0, "[Demo Venc] Invalid AENC type!"},
    };
    SCREENRECORD_Init();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name ? c.name : "(null)");
        ASSERT_EQ(steps::open(0), 1u);
        forget();
        EXPECT_EQ(c.video ? steps::set_video(0, "cap", c.name) : steps::set_audio(0, "cap", c.name),
                  c.accepted);
        std::vector<std::string> expected;
        if (c.error)
            expected.push_back(
                error_of(c.video ? "_SCREENRECORD_GetVencSrcType" : "_SCREENRECORD_GetAencSrcType", c.error));
        if (!c.accepted)
            expected.push_back(c.video ? error_of("SCREENRECORD_SetVideo", "Error: invalid Venc Type")
                                       : error_of("SCREENRECORD_SetAudio", "Error: invalid AENC Type!"));
        EXPECT_CALLS(errors(), expected);
        if (c.video && c.accepted) {
            EXPECT_EQ(mw.last().encoder.eCodecType, c.codec);
        }
        const bool sound = !c.video && c.accepted && c.codec == 0; // MP3 opens no capture
        EXPECT_EQ(mw.count("ZU_ACAP_Open"), sound);
        EXPECT_EQ(mw.count("ZU_VENC_Open"), c.video && c.accepted);
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
        EXPECT_EQ(mw.last().encoder.eCodecType, c.codec_is_looked_at ? 1u : 0u);
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
        const auto output = mw.last().capture.stOutput;
        EXPECT_EQ(output.u32OutWidth, c.capture_width);
        EXPECT_EQ(output.u32OutHeight, c.capture_height);
        EXPECT_EQ(output.u32OutSize, c.size);
        steps::close(0);
    }
}

TEST_F(RecordingCalls, OneCallRunsTheWholeSequenceOnSlotZero)
{
    ASSERT_EQ(steps::one_call(0), 0);
    EXPECT_EQ(mw.last().encoder.u32Width, 640u);
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

    EXPECT_EQ(startScreenRecord(0, 0, 0, 0, 0, 0, 0, nullptr), -1);
    EXPECT_EQ(errors().back(), error_of("startScreenRecord", "SCREENRECORD_Open Fail"));
    EXPECT_EQ(startScreenRecord(0, 0, 0, 0, 0, 0, 'x', steps::text("out.ts")), -1);
    EXPECT_EQ(errors().back(), error_of("startScreenRecord", "SCREENRECORD_SetVideo Fail"));
}

} // namespace
