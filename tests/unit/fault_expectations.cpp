#include "fault_expectations.h"

#include "middleware/state.h"

namespace faults {

namespace {

constexpr int any = 0;
/** For lines that only several faults of a call lead to. */
constexpr int only_with_others = -1;

/** A call that fails, as the tables name it. */
struct Call {
    Call(const char* call, int number = any, std::optional<s64> only = {})
        : name(call), nth(number), result(only)
    {
    }
    std::string name;
    /** among the calls of that name */
    int nth;
    /** for this result alone; such a rule stands before the others of its call */
    std::optional<s64> result;
};

using Lines = std::vector<std::string>;

/** What a client sees of a call that fails. */
struct Rule {
    /** kinds of scenarios, as bits */
    unsigned in;
    Call call;
    /** the client's call that answers failure */
    std::string failing = {};
    /** 0x%x and %d stand for the result */
    Lines errors = {};
};

using Rules = std::vector<Rule>;

/** The last lines that several faults have in common. */
struct Ending {
    unsigned in;
    Lines lines;
};

constexpr unsigned recordings = screen | files;
constexpr unsigned encoded_frames = inject | copy;
constexpr unsigned any_scenario = recordings | encoded_frames | stills | pcm;

const std::string no_mutex = "_SCREENRECORD_CreateTask]Fail to create Trancode mutex";
const std::string no_task = "_SCREENRECORD_CreateTask]Failed to ZU_OS_CreateTask(...)!";
const std::string no_stack =
    "_SCREENRECORD_CreateTask]Failed to malloc for VENC Get Source Tack Stack!";
const std::string not_connected = "_SCREENRECORD_OpenVcap]Fail to Connect Disp!";
const std::string no_caps = "_SCREENRECORD_OpenVenc_NoTs]Out of Venc Support size, 0x0@0)";

const Ending encoder_of_a_recording = {
    recordings, {"SCREENRECORD_SetVideo][DEMO TRANSCODE] Open Venc Failed!"}};
const Ending encoder_of_frames = {encoded_frames,
                                  {"video_capenc_open] _SCREENRECORD_OpenVenc Failed!"}};
const Ending capture_of_a_recording = {
    screen, {"SCREENRECORD_SetVideo][DEMO TRANSCODE] Open Vcap Failed!"}};
const Ending capture_of_frames = {encoded_frames,
                                  {"video_capenc_open] _SCREENRECORD_OpenVcap Failed!"}};
const Ending capture_of_stills = {stills, {"video_cap_open] _SCREENRECORD_OpenVcap Failed!"}};
const Ending sound_of_a_recording = {screen,
                                     {"SCREENRECORD_SetAudio][DEMO TRANSCODE] Open Acap Failed!"}};
const Ending multiplexer_of_a_recording = {
    recordings, {"SCREENRECORD_SetTsMux][DEMO TRANSCODE] Open Tsmux Failed!"}};
const Ending writer = {recordings,
                       {"_SCREENRECORD_StartModule]Error 0x3: failed to _SCREENRECORD_CreateTask()",
                        "SCREENRECORD_Start]Error 0x3: failed to Start TSMUX"}};
const Ending audio_reader = {
    files,
    {"_SCREENRECORD_StartModule]Failed to Create AUDIO Src Reader Handler Task(...)!",
     "SCREENRECORD_Start]Error 0x3: failed to Start AUDIO SrcReader"}};
const Ending video_reader = {
    files,
    {"_SCREENRECORD_StartModule]Failed to Create VIDEO Src Reader Handler Task(...)!",
     "SCREENRECORD_Start]Error 0x3: failed to Start VIDEO SrcReader"}};

std::string no_capabilities(const std::string& module)
{
    return "_SCREENRECORD_GetModuleCaps][DEMO TRANSCODE] Failed to Get " + module + " Caps";
}

std::string not_stopped(const std::string& call)
{
    return "_SCREENRECORD_StopModule][DEMO TRANSCODE] " + call + " FAIL";
}

/** Only the log shows it. */
Rule says(unsigned in, const Call& call, const Lines& lines)
{
    return {in, call, "", lines};
}

Rule fails(unsigned in, const Call& call, const std::string& failing, const Lines& lines)
{
    return {in, call, failing, lines};
}

/** The client's call that writes the last line answers failure. */
Rule fails(unsigned in, const Call& call, const Lines& lines)
{
    return {in, call, lines.back().substr(0, lines.back().find(']')), lines};
}

Rule fails(const Ending& ending, const Call& call, Lines lines)
{
    lines.insert(lines.end(), ending.lines.begin(), ending.lines.end());
    return fails(ending.in, call, lines);
}

Rules modules()
{
    return {
        says(any_scenario, "ZU_SYS_Init",
             {"_SCREENRECORD_InitModule]Error 0x%x: failed to ZU_SYS_Init()"}),
        {recordings | pcm, {"ZU_ACAP_Init", any, 2}},
        {recordings, {"ZU_VENC_Init", any, 2}},
        {recordings, {"ZU_TSMUX_Init", any, 2}},
        fails(recordings, "ZU_ACAP_Init",
              {"_SCREENRECORD_InitModule]Failed to ZU_ACAP_Init(...)!",
               "SCREENRECORD_Init]Failed to ZU_ACAP_Init(...)!"}),
        fails(pcm, "ZU_ACAP_Init",
              {"_SCREENRECORD_InitModule]Failed to ZU_ACAP_Init(...)!",
               "audio_cap_open] _SCREENRECORD_InitModule Failed!"}),
        fails(recordings, "ZU_VENC_Init",
              {"_SCREENRECORD_InitModule]Fail to call ZU_VENC_Init() %d",
               "SCREENRECORD_Init]Failed to ZU_VENC_Init(...)!"}),
        fails(recordings, "ZU_TSMUX_Init",
              {"_SCREENRECORD_InitModule]Error 0x%x: failed to ZU_TSMUX_Init()",
               "SCREENRECORD_Init]Failed to ZU Tsmux Init(...)!"}),
    };
}

Rules capabilities_and_shutdown()
{
    return {
        fails(encoder_of_a_recording, "ZU_VIDEO_GetCaps",
              {no_capabilities("Video"), "_SCREENRECORD_OpenVenc]Venc Support!"}),
        fails(encoder_of_a_recording, "ZU_VENC_GetCaps",
              {no_capabilities("Venc"), "_SCREENRECORD_OpenVenc]Venc Support!"}),
        fails(encoder_of_frames, "ZU_VIDEO_GetCaps", {no_capabilities("Video"), no_caps}),
        fails(encoder_of_frames, "ZU_VENC_GetCaps", {no_capabilities("Venc"), no_caps}),
        says(recordings | encoded_frames, "ZU_AUDIO_GetCaps", {no_capabilities("Audio")}),
        says(recordings | encoded_frames, "ZU_ACAP_GetCaps", {no_capabilities("Acap")}),
        says(recordings | pcm, "ZU_ACAP_DeInit",
             {"_SCREENRECORD_DeInitModule]Failed to Deinit ACap"}),
        says(recordings, "ZU_VENC_DeInit", {"_SCREENRECORD_DeInitModule]Failed to Deinit Venc"}),
        says(recordings, "ZU_TSMUX_DeInit", {"_SCREENRECORD_DeInitModule]Failed to Deinit Tsmux"}),
    };
}

Rules files_of_the_recording()
{
    return {
        fails(recordings, {"ZU_FS_Fopen", 1},
              {"SCREENRECORD_Open]Error: failed to ZU_FS_Fopen(out.ts) for output TS stream"}),
        fails(files, {"ZU_FS_Fopen", 2},
              {"_SCREENRECORD_OpenSrcReader]Error: failed to ZU_FS_Fopen(a.aac) for Input Sourcen",
               "SCREENRECORD_SetAudio][DEMO TRANSCODE] Open AUDIO Src File Reader Failed!"}),
        fails(files, {"ZU_FS_Fopen", 3},
              {"_SCREENRECORD_OpenSrcReader]Error: failed to ZU_FS_Fopen(a.nv12) for Input Sourcen",
               "SCREENRECORD_SetVideo][DEMO TRANSCODE] Open Src File Reader Failed!"}),
        fails(screen, "ZU_FS_Fclose", {"SCREENRECORD_Close]ZU_FS_Fclose Failed!"}),
        fails(files, {"ZU_FS_Fclose", 3}, {"SCREENRECORD_Close]ZU_FS_Fclose Failed!"}),
        says(files, "ZU_FS_Fclose", {"_SCREENRECORD_CloseSrcReader]ZU_FS_Fclose Failed!"}),
    };
}

Rules sound()
{
    return {
        fails(sound_of_a_recording, "ZU_ACAP_Open", {"_SCREENRECORD_OpenAcap]ZU_ACAP_OPEN FAIL"}),
        fails(pcm, "ZU_ACAP_Open",
              {"_SCREENRECORD_OpenAcap]ZU_ACAP_OPEN FAIL",
               "audio_cap_open] _SCREENRECORD_OpenAcap Failed!"}),
        fails(sound_of_a_recording, "ZU_ACAP_RegisterCallback",
              {"_SCREENRECORD_OpenAcap]_SCREENRECORD_OpenAcap[*] Error:%d Fail to "
               "register callback !."}),
        fails(screen, "ZU_ACAP_Start",
              {"_SCREENRECORD_StartModule]Failed to ZU_ACAP_Start(...)!",
               "SCREENRECORD_Start]Error 0x%x: failed to Start ACAP"}),
        fails(pcm, "ZU_ACAP_Start",
              {"_SCREENRECORD_StartModule]Failed to ZU_ACAP_Start(...)!",
               "audio_cap_start] _SCREENRECORD_StartModule cap Failed!"}),
        {pcm, {"ZU_ACAP_GetAttr", any, 0}},
        fails(pcm, "ZU_ACAP_GetAttr",
              {"audio_cap_getPCM]Error: audio_cap_getPCM: ZU_ACAP_GetAttr fail, ret=0x%x!!"}),
        {pcm, {"ZU_ACAP_Read", any, 0}},
        says(pcm, "ZU_ACAP_Read",
             {"audio_cap_getPCM]audio_cap_getPCM: ZU_ACAP_Read fail, ret=0x%x!!"}),
        says(screen | pcm, "ZU_ACAP_Stop", {not_stopped("ZU_ACAP_STOP")}),
        says(screen | pcm, "ZU_ACAP_UnRegisterCallback",
             {"_SCREENRECORD_CloseAcap]ZU_ACAP_UnRegisterCallback Failed"}),
        says(screen | pcm, "ZU_ACAP_Close", {"_SCREENRECORD_CloseAcap]ZU_ACAP_Close Failed"}),
    };
}

Rules encoder()
{
    return {
        fails(encoder_of_a_recording, "ZU_VENC_Open",
              {"_SCREENRECORD_OpenVenc]Fail to call ZU_VENC_Open()"}),
        fails(encoder_of_frames, "ZU_VENC_Open",
              {"_SCREENRECORD_OpenVenc_NoTs]Fail to call ZU_VENC_Open()"}),
        {inject, {"ZU_VENC_QueryEntireInjectBuffer", any, 0}, "video_capenc_setWatermark"},
        {copy, {"ZU_VENC_QueryEntireInjectBuffer", any, 0}},
        fails(encoder_of_frames, "ZU_VENC_QueryEntireInjectBuffer",
              {"_SCREENRECORD_OpenVenc_NoTs]Failed to ZU_VENC_QueryBuffer(...)!"}),
        fails(recordings, "ZU_VENC_Start",
              {"_SCREENRECORD_StartModule]Fail to call ZU_VENC_Start()",
               "SCREENRECORD_Start]Error 0x%x: failed to Start VENC"}),
        fails(encoded_frames, "ZU_VENC_Start",
              {"_SCREENRECORD_StartModule]Fail to call ZU_VENC_Start()",
               "video_capenc_start]Error 0x%x: failed to Start VENC"}),
        says(encoded_frames | screen, "ZU_VENC_WriteBufferComplete",
             {"_SCREENRECORD_Callback]Failed to ZU_VENC_WriteBufferComplete(...)!"}),
        says(files, "ZU_VENC_WriteBufferComplete",
             {"_SCREENRECORD_VreaderTaskHandler]Failed to ZU_VENC_WriteBufferComplete(...)!"}),
        {encoded_frames, "ZU_VENC_SetAttr:0x1", "video_capenc_setBitRate"},
        says(recordings | encoded_frames, "ZU_VENC_Stop", {not_stopped("ZU_VENC_STOP")}),
        says(recordings | encoded_frames, "ZU_VENC_Close",
             {"_SCREENRECORD_CloseVenc]ZU_VENC_Close Failed"}),
    };
}

Rules capture_opens()
{
    return {
        fails(capture_of_a_recording, "ZU_CAP_Open",
              {"_SCREENRECORD_OpenVcap]Failed to ZU_CAP_Open(0x%x)!"}),
        fails(capture_of_frames, "ZU_CAP_Open",
              {"_SCREENRECORD_OpenVcap]Failed to ZU_CAP_Open(0x%x)!"}),
        fails(capture_of_stills, "ZU_CAP_Open",
              {"_SCREENRECORD_OpenVcapNoEnc]Failed to ZU_CAP_Open(...)!"}),
        fails(capture_of_a_recording, "ZU_DISP_GetHandle",
              {"_SCREENRECORD_ConnectDisp]Fail to ZU_DISP_GetHandle ", not_connected}),
        fails(capture_of_frames, "ZU_DISP_GetHandle",
              {"_SCREENRECORD_ConnectDisp]Fail to ZU_DISP_GetHandle ", not_connected}),
        fails(capture_of_stills, "ZU_DISP_GetHandle",
              {"_SCREENRECORD_ConnectDisp]Fail to ZU_DISP_GetHandle ",
               "_SCREENRECORD_OpenVcapNoEnc]Fail to Connect Disp!"}),
        fails(capture_of_a_recording, "ZU_CAP_ConnectInput",
              {"_SCREENRECORD_ConnectDisp]Fail to connect disp", not_connected}),
        fails(capture_of_frames, "ZU_CAP_ConnectInput",
              {"_SCREENRECORD_ConnectDisp]Fail to connect disp", not_connected}),
        fails(capture_of_stills, "ZU_CAP_ConnectInput",
              {"_SCREENRECORD_ConnectDisp]Fail to connect disp",
               "_SCREENRECORD_OpenVcapNoEnc]Fail to Connect Disp!"}),
        fails(capture_of_a_recording, "ZU_CAP_RegisterCallback",
              {"_SCREENRECORD_RegisterCallback]ZU_CAP_RegisterCallback fail! ",
               "_SCREENRECORD_OpenVcap]Error: _SCREENRECORD_OpenVcap(*) "
               "_SCREENRECORD_RegisterCallback failed"}),
        fails(capture_of_frames, "ZU_CAP_RegisterCallback",
              {"_SCREENRECORD_RegisterCallback]ZU_CAP_RegisterCallback fail! ",
               "_SCREENRECORD_OpenVcap]Error: _SCREENRECORD_OpenVcap(*) "
               "_SCREENRECORD_RegisterCallback failed"}),
    };
}

Rules capture_runs_and_closes()
{
    return {
        fails(screen, "ZU_CAP_CaptureStart",
              {"_SCREENRECORD_StartModule]Failed to ZU_CAP_CaptureStart(...)!",
               "SCREENRECORD_Start]Error 0x%x: failed to Start VCAP"}),
        fails(encoded_frames, "ZU_CAP_CaptureStart",
              {"_SCREENRECORD_StartModule]Failed to ZU_CAP_CaptureStart(...)!",
               "video_capenc_start]Error 0x%x: failed to Start Vcap"}),
        says(encoded_frames | screen, "ZU_CAP_ProcessBufDone",
             {"_SCREENRECORD_Callback]\033[35m_SCREENRECORD_Callback *[ "
              "ZU_CAP_ProcessBufDone bufindex = 0 fail !!]\033[m"}),
        says(stills, "ZU_CAP_ProcessBufDone",
             {"video_cap_captureScreen]\033[35mvideo_cap_captureScreen *[ "
              "ZU_CAP_ProcessBufDone bufindex = 5 fail !!]\033[m"}),
        fails(stills, "ZU_CAP_CaptureOne", {"video_cap_captureScreen]ZU_CAP_CaptureOne fail! "}),
        says(encoded_frames | screen, "ZU_CAP_CaptureStop", {not_stopped("ZU_VCAP_STOP")}),
        says(encoded_frames | screen, "ZU_CAP_UnRegisterCallback",
             {"_SCREENRECORD_UnRegisterCallback]ZU_CAP_UnRegisterCallback fail! ",
              not_stopped("_SCREENRECORD_UnRegisterCallback")}),
        says(encoded_frames | screen | stills, "ZU_CAP_DisconnectInput",
             {not_stopped("ZU_CAP_DisconnectInput")}),
        says(screen | inject | stills, {"ZU_CAP_DisconnectInput", only_with_others},
             {"_SCREENRECORD_ConnectDisp]Cap has connected to 0xd0"}),
        says(encoded_frames | screen | stills, "ZU_CAP_Close",
             {"_SCREENRECORD_CloseVcap]ZU_CAP_Close Failed"}),
    };
}

Rules multiplexer_opens()
{
    return {
        fails(multiplexer_of_a_recording, "ZU_SYS_GetMmapLayout",
              {"_SCREENRECORD_OpenTsmux]Error: Invalid mmap layout with id = 306"}),
        says(recordings, {"ZU_OS_Pa2NonCachedVa", 1},
             {"_SCREENRECORD_OpenTsmux]phyMemAddr: 0x2000000 phyMiuBaseAddr: 0x100000000"}),
        fails(multiplexer_of_a_recording, "ZU_TSMUX_Open",
              {"_SCREENRECORD_OpenTsmux]Error 0x%x: failed to ZU_TSMUX_Open()"}),
        fails(multiplexer_of_a_recording, "ZU_TSMUX_RegisterCallback",
              {"_SCREENRECORD_OpenTsmux]Error 0x%x: failed to ZU_TSMUX_RegisterCallback()"}),
        fails(multiplexer_of_a_recording, "ZU_TSMUX_SetAttr:0x203",
              {"_SCREENRECORD_OpenTsmux]Error 0x%x: failed to "
               "ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL)"}),
        fails(recordings, {"ZU_TSMUX_AttachMediaSource", 1},
              {"SCREENRECORD_SetTsMux]Error 0x%x: failed to Attach Venc Stream for Tsmux"}),
        {recordings, {"ZU_TSMUX_AttachMediaSource", 2}, "SCREENRECORD_SetTsMux"},
        fails(recordings, {"ZU_TSMUX_SetAttr:0x200", 1},
              {"SCREENRECORD_SetTsMux]Error 0x%x: failed to "
               "ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL, "
               "leaving time = 1000 ms)"}),
    };
}

Rules multiplexer_runs_and_closes()
{
    return {
        fails(recordings, "ZU_TSMUX_Start",
              {"_SCREENRECORD_StartModule]Error 0x%x: failed to ZU_TSMUX_Start()",
               "SCREENRECORD_Start]Error 0x%x: failed to Start TSMUX"}),
        {recordings, {"ZU_TSMUX_PushMediaData", any, 15}},
        says(recordings, "ZU_TSMUX_PushMediaData",
             {"_SCREENRECORD_VencCbHandler]Error 0x%x: failed to "
              "ZU_TSMUX_PushMediaData(VencCbHandler)"}),
        {recordings, {"ZU_TSMUX_CopyOutputStream", any, 0}},
        says(recordings, "ZU_TSMUX_CopyOutputStream",
             {"_SCREENRECORD_TsmuxTaskHandler]Error 0x%x: failed to ZU_TSMUX_CopyOutputStream()"}),
        says(recordings, {"ZU_TSMUX_SetAttr:0x200", 2},
             {"SCREENRECORD_Close]Failed to ZU_TSMUX_SetAttr()"}),
        says(recordings, "ZU_TSMUX_DetachMediaSource",
             {"SCREENRECORD_Close]Failed to DetachMediaSource() Video"}),
        says(recordings, "ZU_TSMUX_UnRegisterCallback",
             {"_SCREENRECORD_StopModule]Error 0x%x: failed to "
              "ZU_TSMUX_UnRegisterCallback(u64CallbackId = 0x*)"}),
        says(recordings, "ZU_TSMUX_SetAttr:0x202",
             {"_SCREENRECORD_StopModule]Error 0x%x: failed to "
              "ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_IGNORE_REMAIN_MEDIA_DATA_WHEN_STOP, "
              "bForceStop = 1)"}),
        says(recordings, "ZU_TSMUX_Stop",
             {"_SCREENRECORD_StopModule]Failed to ZU_TSMUX_Stop() with force stop = 1"}),
        says(recordings, "ZU_TSMUX_Close", {"_SCREENRECORD_CloseTsmux]Failed to ZU_TSMUX_Close()"}),
    };
}

Rules memory_and_watermark()
{
    return {
        fails(inject, "ZU_OS_Va2Pa", "video_capenc_setWatermark",
              {"video_capenc_setWatermark ZU_OS_Va2Pa failed with external memory"}),
        fails(inject, "ZU_OS_IommuOperation:GET_BUFFINFO", "video_capenc_setWatermark",
              {"video_capenc_setWatermark E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFINFO failed"}),
        fails(inject, "ZU_OS_IommuOperation:GET_BUFFD", "video_capenc_setWatermark",
              {"video_capenc_setWatermark E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD failed"}),
        fails(inject, "SrGlWorker::newWorker", "video_capenc_setWatermark", {"newWorker failed"}),
        fails(inject, "SrGlWorker::setWatermark", "video_capenc_setWatermark",
              {"setWatermark failed"}),
        fails(stills, "ZU_OS_AllocateIommuMemory", "video_cap_getCaptureBuffers",
              {"_video_cap_allocBuffer]_video_cap_allocBuffer "
               "ZU_OS_AllocateIommuMemory fail, tag: vdec_fb, size: 0x8000"}),
        fails(stills, "ZU_OS_IommuOperation:GET_BUFFD", "video_cap_getCaptureBuffers",
              {"_video_cap_allocBuffer]_video_cap_allocBuffer GET_BUFFD fail, tag: "
               "vdec_fb, size: 0x8000"}),
        fails(inject, "SrGlWorker::prepare", "video_capenc_start", {"prepare failed"}),
        says(inject, "VideoBuffer::newBuffer",
             {"_SCREENRECORD_Callback]VideoBuffer::newBuffer failed"}),
        says(inject, "SrGlWorker::render", {"_SCREENRECORD_Callback]SrGlWorker::onRender failed"}),
    };
}

Rules workers()
{
    return {
        fails(writer, {"ZU_OS_CreateMutex", 1}, {no_mutex}),
        fails(recordings, {"ZU_OS_CreateMutex", 2},
              {no_mutex, "_SCREENRECORD_StartModule]Failed to ZU VENC CreateTask(...)!",
               "SCREENRECORD_Start]Error 0x3: failed to Start VENC"}),
        fails(audio_reader, {"ZU_OS_CreateMutex", 3}, {no_mutex}),
        fails(video_reader, {"ZU_OS_CreateMutex", 4}, {no_mutex}),
        fails(encoded_frames, {"ZU_OS_CreateMutex", 1},
              {no_mutex, "_SCREENRECORD_StartModule]Failed to ZU VENC CreateTask(...)!",
               "video_capenc_start]Error 0x3: failed to Start VENC"}),
        fails(writer, {"ZU_OS_CreateTask", 1}, {no_task}),
        fails(audio_reader, {"ZU_OS_CreateTask", 2}, {no_task}),
        fails(video_reader, {"ZU_OS_CreateTask", 3}, {no_task}),
        {encoded_frames, {"ZU_OS_ObtainMutex", 3}, "video_capenc_getES"},
        {encoded_frames, {"ZU_OS_ObtainMutex", 4}, "video_capenc_setBitRate"},
        says(encoded_frames, {"ZU_OS_ObtainMutex", 5},
             {"video_capenc_requestKeyFrame]No key frame requested, the lock was not obtained"}),
    };
}

Rules allocations()
{
    return {
        fails(recordings, {"malloc", 1},
              {"SCREENRECORD_Open][DEMO TRANSCODE] FAILED malloc memory!"}),
        fails(recordings, {"malloc", 2},
              {"SCREENRECORD_SetAudio][DEMO TRANSCODE] FAILED malloc memory!"}),
        fails(recordings, {"malloc", 3},
              {"SCREENRECORD_SetVideo][DEMO TRANSCODE] FAILED malloc memory!"}),
        fails(writer, {"malloc", 4}, {no_stack}),
        fails(writer, {"malloc", 5}, {no_task}),
        says(recordings, {"malloc", 6},
             {"_SCREENRECORD_TsmuxTaskHandler]Error: failed to malloc(131072) for batch write"}),
        fails(audio_reader, {"malloc", 7}, {no_stack}),
        fails(audio_reader, {"malloc", 8}, {no_task}),
        fails(video_reader, {"malloc", 9}, {no_stack}),
        fails(video_reader, {"malloc", 10}, {no_task}),
        fails(inject, {"malloc", 4}, "video_capenc_setWatermark",
              {"video_capenc_setWatermark no memory for the watermark"}),
        says(copy, {"malloc", 4}, {"video_capenc_setWatermark no memory for the watermark"}),
        fails(encoded_frames, "malloc", {"video_capenc_open]malloc 2097152 failed"}),
    };
}

/** A call that no rule names fails unnoticed. */
const Rules& all_rules()
{
    static const Rules all = [] {
        Rules rules;
        for (const auto list :
             {modules, capabilities_and_shutdown, files_of_the_recording, sound, encoder,
              capture_opens, capture_runs_and_closes, multiplexer_opens,
              multiplexer_runs_and_closes, memory_and_watermark, workers, allocations})
            std::ranges::copy(list(), std::back_inserter(rules));
        return rules;
    }();
    return all;
}

void replace_all(std::string& text, const std::string& from, const std::string& to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

std::string with_result(std::string text, s64 result)
{
    replace_all(text, "0x%x", middleware::hex(static_cast<u32>(result)));
    replace_all(text, "%d", std::to_string(result));
    return text;
}

bool is_for(const Rule& rule, Kind kind, const Fault& fault)
{
    return (rule.in & kind) != 0 && rule.call.name == fault.call &&
           (!rule.call.result || rule.call.result == fault.result);
}

} // namespace

Expectation expected_of(Kind kind, const Fault& fault, bool wherever)
{
    Expectation e;
    for (const Rule& rule : all_rules()) {
        if (!is_for(rule, kind, fault) ||
            (!wherever && rule.call.nth != any && rule.call.nth != fault.nth))
            continue;
        if (!rule.failing.empty())
            e.failing.insert(rule.failing);
        for (const std::string& line : rule.errors)
            e.errors.push_back(with_result(line, fault.result));
        if (!wherever)
            break;
    }
    return e;
}

bool matches(const std::string& pattern, const std::string& text)
{
    const size_t star = pattern.find('*');
    return star == std::string::npos ? text == pattern
                                     : text.starts_with(pattern.substr(0, star)) &&
                                           text.ends_with(pattern.substr(star + 1));
}

} // namespace faults
