/** A recording call by call: a changed order or argument is a fault on the device. */
#include "library_test.h"

namespace {

class RecordingCalls : public LibraryTest {
protected:
    /** All steps of a recording of the screen and its sound before its start. */
    static void configure()
    {
        ASSERT_TRUE(SCREENRECORD_Init() && steps::open(0) && steps::set_audio(0) &&
                    steps::set_video(0, "cap", nullptr, 1280, 720) && steps::set_mux(0, 192, 2));
    }
};

// Catches a module initialised twice, another's that is shut down, and a slot with old values.
TEST_F(RecordingCalls, InitBringsUpEachModuleOnceAndDeInitUndoesOnlyItsOwn)
{
    mw.fail("ZU_VENC_Init", {.result = ZU_ALREADY_INITIALISED});
    EXPECT_EQ(SCREENRECORD_Init(), 1u);
    EXPECT_CALLS(mw.take_calls(),
                 {"ZU_SYS_Init(0)=0", "ZU_ACAP_Init(0)=0", "ZU_VENC_Init(0)=2",
                  "ZU_TSMUX_Init(0)=0", "ZU_VIDEO_GetCaps()=0", "ZU_VENC_GetCaps()=0",
                  "ZU_AUDIO_GetCaps()=0", "ZU_ACAP_GetCaps()=0"});
    EXPECT_EQ(SCREENRECORD_Init(), 1u);
    EXPECT_CALLS(mw.take_calls(), {});
    mw.take_logs();

    EXPECT_EQ(SCREENRECORD_DeInit(), 1u);
    EXPECT_CALLS(mw.take_calls(),
                 {"ZU_FS_Sync()=0", "ZU_FS_Sync()=0", "ZU_ACAP_DeInit()=0", "ZU_TSMUX_DeInit()=0"});
    EXPECT_EQ(middleware::joined(mw.take_logs()).find("has Deinited"), std::string::npos)
        << "each was";
    EXPECT_EQ(SCREENRECORD_DeInit(), 0u);
    std::vector<std::string> deinited;
    for (u32 module = 0; module < E_SCREENRECORD_MODULE_MAX; module++)
        deinited.push_back("D [_SCREENRECORD_DeInitModule][DEMO TRANSCODE] Module " +
                           std::to_string(module) + " has Deinited");
    std::vector<std::string> logs = mw.take_logs();
    EXPECT_CALLS(std::vector<std::string>(logs.end() - 7, logs.end()), deinited);

    SCREENRECORD_SlotCtrl_s& slot = _astSlotCtrl[1];
    slot.u32SlotId = slot.u32MaxFrameNum = slot.u32CapPitch = 1;
    slot.u64CapBufTotalSize = slot.u64CapFrameSize = slot.u64CapBufPhyAddr = 1;
    slot.s32CapBufFd = 1;
    slot.astTaskCtrl[VCAP].eModule = E_SCREENRECORD_MODULE_MAX;
    EXPECT_EQ(SCREENRECORD_Init(), 1u);
    EXPECT_EQ(mw.count("ZU_SYS_Init"), 0) << "the system is initialised once a process";
    EXPECT_EQ(slot.u32SlotId + slot.u32MaxFrameNum + slot.u32CapPitch + slot.u64CapBufTotalSize +
                  slot.u64CapFrameSize + slot.u64CapBufPhyAddr,
              0u);
    EXPECT_EQ(slot.s32CapBufFd, -1);
    EXPECT_EQ(slot.astTaskCtrl[VCAP].eModule, VCAP);
}

// Catches a changed order or argument of the device calls that configure a screen recording.
TEST_F(RecordingCalls, ScreenAndSoundAreConfiguredCallByCall)
{
    SCREENRECORD_Init();
    forget();
    ASSERT_EQ(steps::open(0), 1u);
    ASSERT_EQ(steps::set_audio(0), 1u);
    EXPECT_CALLS(mw.take_calls(), {"ZU_FS_Fopen(out.ts, wb)=2147483889 h=0x800000f1",
                                   "ZU_ACAP_Open(name=acap_s)=0 h=0x31",
                                   "ZU_ACAP_RegisterCallback(0x31, mask=1)=0 id=0x1000000c1",
                                   "ZU_ACAP_SetVolume(0x31, 100)=0"});
    ASSERT_EQ(steps::set_video(0, "cap", nullptr, 1280, 720), 1u);
    EXPECT_CALLS(
        mw.take_calls(),
        {"ZU_VENC_Open(name=venc0 color=0 1280x720@30 bitrate=1048576 profile=0 level=0 codec=1 "
         "mask=1)=0 h=0x21",
         "ZU_CAP_Open(path=0)=0 h=0x11", "ZU_DISP_GetHandle(name=ZU_DISP_HD0)=0 h=0xd0",
         "ZU_CAP_ConnectInput(0x11, 0xd0, port=0)=0",
         "ZU_CAP_RegisterCallback(0x11, mask=1)=0 id=0x1000000c2"});
    ASSERT_EQ(steps::set_mux(0, 192, 2), 1u);
    EXPECT_CALLS(
        mw.take_calls(),
        {"ZU_SYS_GetMmapLayout(306)=0", "ZU_OS_Pa2NonCachedVa(0x102000000)=0",
         "ZU_OS_FlushMemory()=0",
         "ZU_TSMUX_Open(packet=192 cbr=1 rate=2097152 size=2097152)=0 h=0x41",
         "ZU_TSMUX_RegisterCallback(0x41, mask=3)=0 id=0x1000000c3",
         "ZU_TSMUX_SetAttr(0x41, 0x203, {1, 180000, 90000})=0",
         "ZU_TSMUX_AttachMediaSource(0x41, type=0x4 pid=0x101 stream=0xe0)=0 id=0x100000051",
         "ZU_TSMUX_AttachMediaSource(0x41, type=0x104 pid=0x102 stream=0xc0)=0 "
         "id=0x100000052",
         "ZU_TSMUX_SetAttr(0x41, 0x200, {1, 1000})=0"});
}

// Catches a changed device call of start or stop, and a second start that repeats them.
TEST_F(RecordingCalls, ScreenAndSoundStartAndStopCallByCall)
{
    configure();
    forget();
    // its passes would stand between the calls in any place
    mw.hold_tasks();
    ASSERT_EQ(steps::start(0), 1u);
    EXPECT_CALLS(
        mw.take_calls(),
        {"ZU_OS_CreateMutex(name=Tscode: 6)=0 m0",
         "ZU_OS_CreateTask(name=Tscode:6 priority=4 stack=133120 start=1)=0 t1",
         "ZU_TSMUX_Start(0x41, 0)=0", "ZU_OS_CreateMutex(name=Tscode: 4)=0 m1",
         "ZU_VENC_Start(0x21, 0)=0", "ZU_ACAP_Start(0x31, 0)=0",
         "ZU_CAP_CaptureStart(0x11, path=0 osd=0 1280x736@30 format=5 size=2867200 pitch=0 "
         "fd=-1 virt=0 phys=0x0)=0"});
    EXPECT_EQ(steps::start(0), 1u);
    EXPECT_CALLS(mw.take_calls(), {});

    EXPECT_EQ(steps::stop(0), 1u);
    EXPECT_CALLS(mw.take_calls(), {"ZU_CAP_CaptureStop(0x11)=0",
                                   "ZU_CAP_UnRegisterCallback(0x11, id=0x1000000c2 mask=1)=0",
                                   "ZU_CAP_DisconnectInput(0x11, 0xd0)=0", "ZU_ACAP_Stop(0x31)=0",
                                   "ZU_VENC_Stop(0x21)=0", "ZU_OS_DeleteMutex(m1)=0"});
}

// Catches a changed device call of close, a slot that stays open, and a second close that repeats.
TEST_F(RecordingCalls, ScreenAndSoundCloseCallByCall)
{
    configure();
    mw.hold_tasks();
    ASSERT_TRUE(steps::start(0) && steps::stop(0));
    mw.take_calls();
    mw.take_logs();
    EXPECT_EQ(steps::close(0), 1u);
    EXPECT_CALLS(mw.take_calls(),
                 {"ZU_ACAP_Stop(0x31)=0", "ZU_VENC_Stop(0x21)=0", "ZU_CAP_Close(0x11)=0",
                  "ZU_ACAP_Stop(0x31)=0", "ZU_ACAP_UnRegisterCallback(0x31, id=0x0 mask=1)=0",
                  "ZU_ACAP_Close(0x31)=0", "ZU_TSMUX_SetAttr(0x41, 0x200, {0, 0})=0",
                  "ZU_VENC_Stop(0x21)=0", "ZU_VENC_Close(0x21)=0",
                  "ZU_TSMUX_DetachMediaSource(0x41, 0x100000051)=0",
                  "ZU_TSMUX_UnRegisterCallback(0x41, id=0x1000000c3 mask=0)=0",
                  "ZU_TSMUX_SetAttr(0x41, 0x202, 1)=0", "ZU_TSMUX_Stop(0x41)=0",
                  "ZU_OS_DeleteTask(t1)=0", "ZU_OS_DeleteMutex(m0)=0", "ZU_TSMUX_Close(0x41)=0",
                  "ZU_OS_FlushMemory()=0", "ZU_FS_Fclose(0x800000f1)=0", "ZU_FS_Sync()=0"});
    EXPECT_TRUE(errors().empty());
    EXPECT_TRUE(slot_is_closed(0));

    EXPECT_EQ(steps::close(0), 1u);
    EXPECT_CALLS(mw.take_calls(), {"ZU_FS_Sync()=0"});
}

// Catches a recording of files that opens a capture, leaves a file open, or disturbs the other.
TEST_F(RecordingCalls, FilesAsSourcesOnTheOtherSlotWhileTheFirstRecords)
{
    ASSERT_TRUE(steps::record(0));
    mw.add_file("screen.nv12", Bytes(16));
    mw.add_file("sound.aac", Bytes(16));
    ASSERT_EQ(steps::open(1, "second.ts"), 1u);
    forget();
    ASSERT_EQ(steps::set_audio(1, "sound.aac", "aac"), 1u);
    ASSERT_EQ(steps::set_video(1, "screen.nv12", "h264"), 1u);
    EXPECT_CALLS(
        mw.take_calls(),
        {"ZU_FS_Fopen(sound.aac, rb)=2147483891 h=0x800000f3", "ZU_FS_Fseek(0x800000f3, 0, 0)=0",
         "ZU_VENC_Open(name=venc0 color=0 640x480@30 bitrate=1048576 profile=0 level=0 codec=1 "
         "mask=1)=0 h=0x22",
         "ZU_FS_Fopen(screen.nv12, rb)=2147483892 h=0x800000f4",
         "ZU_FS_Fseek(0x800000f4, 0, 0)=0"});
    EXPECT_EQ(task(1, VREADER).u32Handle, 0xf4u) << "the mark has no top bit";
    ASSERT_EQ(steps::set_mux(1), 1u);
    ASSERT_EQ(steps::start(1), 1u);
    EXPECT_EQ(steps::close(1), 1u);
    EXPECT_EQ(mw.count("ZU_FS_Fclose"), 3);
    EXPECT_EQ(mw.count("ZU_FS_Sync"), 3) << "one behind each file";
    EXPECT_TRUE(slot_is_closed(1));
    EXPECT_EQ(task(0, VCAP).bRunning, 1) << "the other slot records on";
}

// Catches a left-out argument that crashes, keeps an earlier call's value, or gets a wrong default.
TEST_F(RecordingCalls, ArgumentsMayBeLeftOut)
{
    SCREENRECORD_Init();
    u32 slot = 0, size = 192, rate = 8;
    for (const bool given : {true, false}) {
        ASSERT_EQ(steps::open(0), 1u);
        const SCREENRECORD_SrcInfo_s& source = _astSlotCtrl[0].stSrcInfo;
        u32 bits = given ? 24 : 0;
        ASSERT_EQ(SCREENRECORD_SetAudio(&slot, steps::text("cap"), nullptr, &bits), 1u);
        EXPECT_EQ(source.u8AudioBitWidth, given ? 24 : 16);
        ASSERT_EQ(
            SCREENRECORD_SetVideo(&slot, steps::text("cap"), nullptr, nullptr, nullptr, nullptr),
            1u);
        EXPECT_EQ(source.u32Width, 640u);
        EXPECT_EQ(source.u32Height, 480u);
        EXPECT_EQ(source.u32FrameRate, 30u);
        // as an earlier call leaves it
        _astSlotCtrl[0].stSrcInfo.u32TsPacketSize = 188;
        ASSERT_EQ(SCREENRECORD_SetTsMux(&slot, given ? &size : nullptr, given ? &rate : nullptr),
                  1u);
        const auto params = mw.last().multiplexer;
        EXPECT_EQ(params.u32TsPacketSize, 192u);
        EXPECT_EQ(params.u32CbrBitrate, given ? 8388608u : 0u);
        EXPECT_EQ(source.bTsmuxOpened, 1);
        EXPECT_EQ(source.u32TsPacketSize, given ? 192u : 0u);
        const u8 ids[] = {0, 0x10, 0, 1, 0, 1, 1, 1};
        EXPECT_EQ(memcmp(&params.u16Pid0, ids, sizeof(ids)), 0);
        steps::close(0);
    }
}

// Catches a recording without sound that waits to interleave it, and MPEG-4 announced as H.264.
TEST_F(RecordingCalls, PicturesAloneAreNotInterleavedAndAnotherCodecIsAnnouncedAsAnother)
{
    SCREENRECORD_Init();
    ASSERT_TRUE(steps::open(0) && steps::set_video(0, "cap", "mpeg4") && steps::set_mux(0));
    EXPECT_CALLS(
        mw.calls_of({"ZU_TSMUX_SetAttr", "ZU_TSMUX_AttachMediaSource"}),
        {"ZU_TSMUX_SetAttr(0x41, 0x203, {1, 180000, 90000})=0",
         "ZU_TSMUX_AttachMediaSource(0x41, type=0x3 pid=0x101 stream=0xe0)=0 id=0x100000051"});
}

// Catches a cached output buffer that is not flushed when it is opened or given up.
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
    EXPECT_EQ(task(0, TSMUX).u32OutBufSize, 0u);
}

// Catches a codec name that opens another codec, or is refused or accepted wrongly.
TEST_F(RecordingCalls, CodecNamesDecideWhatIsOpened)
{
    struct Case {
        bool video, accepted;
        u32 codec;
        std::vector<const char*> names;
        std::vector<std::string> errors = {};
    };
    const std::string no_venc = "E [_SCREENRECORD_GetVencSrcType]Venc unsupport!",
                      no_aenc = "E [_SCREENRECORD_GetAencSrcType]Aenc unsupport!",
                      unknown_venc =
                          "E [_SCREENRECORD_GetVencSrcType][Demo Venc] Invalid VENC type!",
                      unknown_aenc =
                          "E [_SCREENRECORD_GetAencSrcType][Demo Venc] Invalid AENC type!",
                      bad_venc = "E [SCREENRECORD_SetVideo]Error: invalid Venc Type",
                      bad_aenc = "E [SCREENRECORD_SetAudio]Error: invalid AENC Type!";
    const Case cases[] = {
        {true, true, 1, {nullptr, "", "auto", "default", "h264"}},
        {true, true, 0, {"mpeg4"}, {no_venc}},
        {true, false, 0, {"mpeg1", "mpeg2", "h265"}, {no_venc, bad_venc}},
        {true, false, 0, {"H264"}, {unknown_venc, bad_venc}},
        {false, true, 0, {nullptr, "aac"}},
        {false, true, 1, {"mp3"}, {no_aenc}},
        {false, false, 0, {"avs", "mpeg1", "ac3", "eac3", "heaac"}, {no_aenc, bad_aenc}},
        {false, false, 0, {"wav"}, {unknown_aenc, bad_aenc}},
    };
    SCREENRECORD_Init();
    for (const Case& c : cases)
        for (const char* name : c.names) {
            SCOPED_TRACE(name ? name : "(null)");
            ASSERT_EQ(steps::open(0), 1u);
            forget();
            EXPECT_EQ(c.video ? steps::set_video(0, "cap", name) : steps::set_audio(0, "cap", name),
                      c.accepted);
            EXPECT_CALLS(errors(), c.errors);
            // MP3 opens no capture
            const bool sound = !c.video && c.accepted && c.codec == 0;
            EXPECT_EQ(mw.count("ZU_ACAP_Open"), sound);
            EXPECT_EQ(mw.count("ZU_VENC_Open"), c.video && c.accepted);
            EXPECT_TRUE(!c.video || !c.accepted || mw.last().encoder.eCodecType == c.codec);
            steps::close(0);
        }
}

// Catches a source name that is mistaken for a file or a screen, and a codec checked needlessly.
TEST_F(RecordingCalls, SourceNamesDecideWhatIsOpened)
{
    SCREENRECORD_Init();
    for (const auto& [name, codec_is_looked_at] :
         {std::pair("ab.ts", false), {"a.ts", true}, {"cap2", true}, {"x.ts.nv12", true}}) {
        SCOPED_TRACE(name);
        mw.add_file(name, Bytes(16));
        for (const char* codec : {"nonsense", "h264"}) {
            ASSERT_EQ(steps::open(0), 1u);
            EXPECT_EQ(steps::set_video(0, name, codec), !codec_is_looked_at || *codec == 'h');
            steps::close(0);
        }
        EXPECT_EQ(mw.count("ZU_CAP_Open"), 0);
        EXPECT_EQ(mw.last().encoder.eCodecType, codec_is_looked_at);
    }
    ASSERT_EQ(steps::open(0), 1u);
    forget();
    EXPECT_EQ(steps::set_audio(0, "ab.ts", "nonsense"), 1u);
    EXPECT_CALLS(errors(), {});
    EXPECT_EQ(mw.count("ZU_ACAP_Open"), 0);
    steps::close(0);
    ASSERT_EQ(steps::open(0), 1u);
    forget();
    EXPECT_EQ(steps::set_audio(0, "a.aac", "mp3"), 0u);
    EXPECT_CALLS(errors(), {"E [_SCREENRECORD_GetAencSrcType]Aenc unsupport!",
                            "E [SCREENRECORD_SetAudio]Error: only aac could support file source"});
}

// Catches a limit of width, height or rate off by one, and a refusal that leaves the slot open.
TEST_F(RecordingCalls, NoMoreThanTheEncoderCanIsTaken)
{
    struct Case {
        u32 width, height, rate;
        bool accepted;
    };
    SCREENRECORD_Init();
    for (const Case& c : {Case{3840, 2160, 120, true}, Case{3841, 2160, 120, false},
                          Case{3840, 2161, 120, false}, Case{3840, 2160, 121, false}}) {
        ASSERT_EQ(steps::open(0), 1u);
        forget();
        EXPECT_EQ(steps::set_video(0, "cap", nullptr, c.width, c.height, c.rate), c.accepted);
        std::vector<std::string> expected = {
            "E [_SCREENRECORD_OpenVenc]Venc Support!",
            "E [SCREENRECORD_SetVideo][DEMO TRANSCODE] Open Venc Failed!"};
        EXPECT_CALLS(errors(), c.accepted ? std::vector<std::string>() : expected);
        EXPECT_NE(slot_is_closed(0), c.accepted);
        steps::close(0);
    }
}

// Catches a lost argument of the single call, and a limit cleared by a failure or kept by a stop.
TEST_F(RecordingCalls, OneCallRunsTheWholeSequenceOnSlotZero)
{
    ASSERT_EQ(startScreenRecord(320, 240, 25, 3, 192, 0, 0, steps::text("out.ts")), 0);
    EXPECT_CALLS(
        mw.calls_of({"ZU_FS_Fopen", "ZU_VENC_Open", "ZU_TSMUX_Open"}),
        {"ZU_FS_Fopen(out.ts, wb)=2147483889 h=0x800000f1",
         "ZU_VENC_Open(name=venc0 color=0 320x240@25 bitrate=1048576 profile=0 level=0 codec=1 "
         "mask=1)=0 h=0x21",
         "ZU_TSMUX_Open(packet=192 cbr=1 rate=3145728 size=2097152)=0 h=0x41"});
    EXPECT_EQ(task(0, VCAP).bRunning, 1);
    EXPECT_EQ(steps::one_call(7), -1);
    EXPECT_EQ(errors().back(), "E [startScreenRecord]SCREENRECORD_Open Fail");
    EXPECT_EQ(_u32RecordTime, 7u) << "kept after a failure";
    EXPECT_EQ(stopScreenRecord(), 0);
    EXPECT_EQ(_u32RecordTime, 0u);
    EXPECT_TRUE(slot_is_closed(0));
}

} // namespace
