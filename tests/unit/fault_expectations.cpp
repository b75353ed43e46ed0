#include "fault_expectations.h"

#include "middleware/state.h"

namespace faults {

namespace {

/** For what only several faults of a call lead to. */
constexpr int only_with_others = -1;

/** A call that fails, and what a client sees of it. */
struct Rule {
    /** kinds of scenarios, as bits */
    unsigned in = 0;
    std::string call = {};
    /** for this result alone; such a rule stands before the others of its call */
    std::optional<s64> result = {};
    /** among the calls of that name; 0 = any */
    int nth = 0;
    /** the client's call that answers failure */
    std::string failing = {};
    /** 0x%x and %d stand for the result */
    std::vector<std::string> errors = {};
};

using Rules = std::vector<Rule>;

constexpr unsigned recordings = screen | files;
constexpr unsigned encoded_frames = inject | copy;

// Lines that several faults have in common.
const std::string encoder_failed = "SCREENRECORD_SetVideo][DEMO TRANSCODE] Open Venc Failed!";
const std::string capture_failed = "SCREENRECORD_SetVideo][DEMO TRANSCODE] Open Vcap Failed!";
const std::string frames_encoder_failed = "video_capenc_open] _SCREENRECORD_OpenVenc Failed!";
const std::string multiplexer_failed = "SCREENRECORD_SetTsMux][DEMO TRANSCODE] Open Tsmux Failed!";
const std::string no_mutex = "_SCREENRECORD_CreateTask]Fail to create Trancode mutex";
const std::string no_task = "_SCREENRECORD_CreateTask]Failed to ZU_OS_CreateTask(...)!";
const std::string no_stack =
    "_SCREENRECORD_CreateTask]Failed to malloc for VENC Get Source Tack Stack!";
const std::vector<std::string> writer_failed = {
    "_SCREENRECORD_StartModule]Error 0x3: failed to _SCREENRECORD_CreateTask()",
    "SCREENRECORD_Start]Error 0x3: failed to Start TSMUX"};
const std::vector<std::string> audio_reader_failed = {
    "_SCREENRECORD_StartModule]Failed to Create AUDIO Src Reader Handler Task(...)!",
    "SCREENRECORD_Start]Error 0x3: failed to Start AUDIO SrcReader"};
const std::vector<std::string> video_reader_failed = {
    "_SCREENRECORD_StartModule]Failed to Create VIDEO Src Reader Handler Task(...)!",
    "SCREENRECORD_Start]Error 0x3: failed to Start VIDEO SrcReader"};

std::vector<std::string> after(const std::string& first, const std::vector<std::string>& rest)
{
    std::vector<std::string> lines = {first};
    lines.insert(lines.end(), rest.begin(), rest.end());
    return lines;
}

Rules modules()
{
    return {
        {.in = recordings | encoded_frames | stills | pcm,
         .call = "ZU_SYS_Init",
         .errors = {"_SCREENRECORD_InitModule]Error 0x%x: failed to ZU_SYS_Init()"}},
        {.in = recordings | pcm, .call = "ZU_ACAP_Init", .result = 2},
        {.in = recordings, .call = "ZU_VENC_Init", .result = 2},
        {.in = recordings, .call = "ZU_TSMUX_Init", .result = 2},
        {.in = recordings,
         .call = "ZU_ACAP_Init",
         .failing = "SCREENRECORD_Init",
         .errors = {"_SCREENRECORD_InitModule]Failed to ZU_ACAP_Init(...)!",
                    "SCREENRECORD_Init]Failed to ZU_ACAP_Init(...)!"}},
        {.in = pcm,
         .call = "ZU_ACAP_Init",
         .failing = "audio_cap_open",
         .errors = {"_SCREENRECORD_InitModule]Failed to ZU_ACAP_Init(...)!",
                    "audio_cap_open] _SCREENRECORD_InitModule Failed!"}},
        {.in = recordings,
         .call = "ZU_VENC_Init",
         .failing = "SCREENRECORD_Init",
         .errors = {"_SCREENRECORD_InitModule]Fail to call ZU_VENC_Init() %d",
                    "SCREENRECORD_Init]Failed to ZU_VENC_Init(...)!"}},
        {.in = recordings,
         .call = "ZU_TSMUX_Init",
         .failing = "SCREENRECORD_Init",
         .errors = {"_SCREENRECORD_InitModule]Error 0x%x: failed to ZU_TSMUX_Init()",
                    "SCREENRECORD_Init]Failed to ZU Tsmux Init(...)!"}},
        {.in = recordings,
         .call = "ZU_VIDEO_GetCaps",
         .failing = "SCREENRECORD_SetVideo",
         .errors = {"_SCREENRECORD_GetModuleCaps][DEMO TRANSCODE] Failed to Get Video Caps",
                    "_SCREENRECORD_OpenVenc]Venc Support!", encoder_failed}},
        {.in = recordings,
         .call = "ZU_VENC_GetCaps",
         .failing = "SCREENRECORD_SetVideo",
         .errors = {"_SCREENRECORD_GetModuleCaps][DEMO TRANSCODE] Failed to Get Venc Caps",
                    "_SCREENRECORD_OpenVenc]Venc Support!", encoder_failed}},
        {.in = encoded_frames,
         .call = "ZU_VIDEO_GetCaps",
         .failing = "video_capenc_open",
         .errors = {"_SCREENRECORD_GetModuleCaps][DEMO TRANSCODE] Failed to Get Video Caps",
                    "_SCREENRECORD_OpenVenc_NoTs]Out of Venc Support size, 0x0@0)",
                    frames_encoder_failed}},
        {.in = encoded_frames,
         .call = "ZU_VENC_GetCaps",
         .failing = "video_capenc_open",
         .errors = {"_SCREENRECORD_GetModuleCaps][DEMO TRANSCODE] Failed to Get Venc Caps",
                    "_SCREENRECORD_OpenVenc_NoTs]Out of Venc Support size, 0x0@0)",
                    frames_encoder_failed}},
        {.in = recordings | encoded_frames,
         .call = "ZU_AUDIO_GetCaps",
         .errors = {"_SCREENRECORD_GetModuleCaps][DEMO TRANSCODE] Failed to Get Audio Caps"}},
        {.in = recordings | encoded_frames,
         .call = "ZU_ACAP_GetCaps",
         .errors = {"_SCREENRECORD_GetModuleCaps][DEMO TRANSCODE] Failed to Get Acap Caps"}},
        {.in = recordings | pcm,
         .call = "ZU_ACAP_DeInit",
         .errors = {"_SCREENRECORD_DeInitModule]Failed to Deinit ACap"}},
        {.in = recordings,
         .call = "ZU_VENC_DeInit",
         .errors = {"_SCREENRECORD_DeInitModule]Failed to Deinit Venc"}},
        {.in = recordings,
         .call = "ZU_TSMUX_DeInit",
         .errors = {"_SCREENRECORD_DeInitModule]Failed to Deinit Tsmux"}},
    };
}

Rules files_of_the_recording()
{
    return {
        {.in = recordings,
         .call = "ZU_FS_Fopen",
         .nth = 1,
         .failing = "SCREENRECORD_Open",
         .errors = {"SCREENRECORD_Open]Error: failed to ZU_FS_Fopen(out.ts) for output TS stream"}},
        {.in = files,
         .call = "ZU_FS_Fopen",
         .nth = 2,
         .failing = "SCREENRECORD_SetAudio",
         .errors =
             {"_SCREENRECORD_OpenSrcReader]Error: failed to ZU_FS_Fopen(a.aac) for Input Sourcen",
              "SCREENRECORD_SetAudio][DEMO TRANSCODE] Open AUDIO Src File Reader Failed!"}},
        {.in = files,
         .call = "ZU_FS_Fopen",
         .nth = 3,
         .failing = "SCREENRECORD_SetVideo",
         .errors =
             {"_SCREENRECORD_OpenSrcReader]Error: failed to ZU_FS_Fopen(a.nv12) for Input Sourcen",
              "SCREENRECORD_SetVideo][DEMO TRANSCODE] Open Src File Reader Failed!"}},
        {.in = screen,
         .call = "ZU_FS_Fclose",
         .failing = "SCREENRECORD_Close",
         .errors = {"SCREENRECORD_Close]ZU_FS_Fclose Failed!"}},
        {.in = files,
         .call = "ZU_FS_Fclose",
         .nth = 3,
         .failing = "SCREENRECORD_Close",
         .errors = {"SCREENRECORD_Close]ZU_FS_Fclose Failed!"}},
        {.in = files,
         .call = "ZU_FS_Fclose",
         .errors = {"_SCREENRECORD_CloseSrcReader]ZU_FS_Fclose Failed!"}},
    };
}

Rules sound()
{
    return {
        {.in = screen,
         .call = "ZU_ACAP_Open",
         .failing = "SCREENRECORD_SetAudio",
         .errors = {"_SCREENRECORD_OpenAcap]ZU_ACAP_OPEN FAIL",
                    "SCREENRECORD_SetAudio][DEMO TRANSCODE] Open Acap Failed!"}},
        {.in = pcm,
         .call = "ZU_ACAP_Open",
         .failing = "audio_cap_open",
         .errors = {"_SCREENRECORD_OpenAcap]ZU_ACAP_OPEN FAIL",
                    "audio_cap_open] _SCREENRECORD_OpenAcap Failed!"}},
        {.in = screen,
         .call = "ZU_ACAP_RegisterCallback",
         .failing = "SCREENRECORD_SetAudio",
         .errors = {"_SCREENRECORD_OpenAcap]_SCREENRECORD_OpenAcap[*] Error:%d Fail to register "
                    "callback !.",
                    "SCREENRECORD_SetAudio][DEMO TRANSCODE] Open Acap Failed!"}},
        {.in = screen,
         .call = "ZU_ACAP_Start",
         .failing = "SCREENRECORD_Start",
         .errors = {"_SCREENRECORD_StartModule]Failed to ZU_ACAP_Start(...)!",
                    "SCREENRECORD_Start]Error 0x%x: failed to Start ACAP"}},
        {.in = pcm,
         .call = "ZU_ACAP_Start",
         .failing = "audio_cap_start",
         .errors = {"_SCREENRECORD_StartModule]Failed to ZU_ACAP_Start(...)!",
                    "audio_cap_start] _SCREENRECORD_StartModule cap Failed!"}},
        {.in = pcm, .call = "ZU_ACAP_GetAttr", .result = 0},
        {.in = pcm,
         .call = "ZU_ACAP_GetAttr",
         .failing = "audio_cap_getPCM",
         .errors = {"audio_cap_getPCM]Error: audio_cap_getPCM: ZU_ACAP_GetAttr fail, ret=0x%x!!"}},
        {.in = pcm, .call = "ZU_ACAP_Read", .result = 0},
        {.in = pcm,
         .call = "ZU_ACAP_Read",
         .errors = {"audio_cap_getPCM]audio_cap_getPCM: ZU_ACAP_Read fail, ret=0x%x!!"}},
        {.in = screen | pcm,
         .call = "ZU_ACAP_Stop",
         .errors = {"_SCREENRECORD_StopModule][DEMO TRANSCODE] ZU_ACAP_STOP FAIL"}},
        {.in = screen | pcm,
         .call = "ZU_ACAP_UnRegisterCallback",
         .errors = {"_SCREENRECORD_CloseAcap]ZU_ACAP_UnRegisterCallback Failed"}},
        {.in = screen | pcm,
         .call = "ZU_ACAP_Close",
         .errors = {"_SCREENRECORD_CloseAcap]ZU_ACAP_Close Failed"}},
    };
}

Rules encoder()
{
    return {
        {.in = recordings,
         .call = "ZU_VENC_Open",
         .failing = "SCREENRECORD_SetVideo",
         .errors = {"_SCREENRECORD_OpenVenc]Fail to call ZU_VENC_Open()", encoder_failed}},
        {.in = encoded_frames,
         .call = "ZU_VENC_Open",
         .failing = "video_capenc_open",
         .errors = {"_SCREENRECORD_OpenVenc_NoTs]Fail to call ZU_VENC_Open()",
                    frames_encoder_failed}},
        {.in = inject,
         .call = "ZU_VENC_QueryEntireInjectBuffer",
         .result = 0,
         .failing = "video_capenc_setWatermark"},
        {.in = copy, .call = "ZU_VENC_QueryEntireInjectBuffer", .result = 0},
        {.in = encoded_frames,
         .call = "ZU_VENC_QueryEntireInjectBuffer",
         .failing = "video_capenc_open",
         .errors = {"_SCREENRECORD_OpenVenc_NoTs]Failed to ZU_VENC_QueryBuffer(...)!",
                    frames_encoder_failed}},
        {.in = recordings,
         .call = "ZU_VENC_Start",
         .failing = "SCREENRECORD_Start",
         .errors = {"_SCREENRECORD_StartModule]Fail to call ZU_VENC_Start()",
                    "SCREENRECORD_Start]Error 0x%x: failed to Start VENC"}},
        {.in = encoded_frames,
         .call = "ZU_VENC_Start",
         .failing = "video_capenc_start",
         .errors = {"_SCREENRECORD_StartModule]Fail to call ZU_VENC_Start()",
                    "video_capenc_start]Error 0x%x: failed to Start VENC"}},
        {.in = encoded_frames | screen,
         .call = "ZU_VENC_WriteBufferComplete",
         .errors = {"_SCREENRECORD_Callback]Failed to ZU_VENC_WriteBufferComplete(...)!"}},
        {.in = files,
         .call = "ZU_VENC_WriteBufferComplete",
         .errors =
             {"_SCREENRECORD_VreaderTaskHandler]Failed to ZU_VENC_WriteBufferComplete(...)!"}},
        {.in = encoded_frames, .call = "ZU_VENC_SetAttr:0x1", .failing = "video_capenc_setBitRate"},
        {.in = recordings | encoded_frames,
         .call = "ZU_VENC_Stop",
         .errors = {"_SCREENRECORD_StopModule][DEMO TRANSCODE] ZU_VENC_STOP FAIL"}},
        {.in = recordings | encoded_frames,
         .call = "ZU_VENC_Close",
         .errors = {"_SCREENRECORD_CloseVenc]ZU_VENC_Close Failed"}},
    };
}

Rules capture()
{
    return {
        {.in = screen,
         .call = "ZU_CAP_Open",
         .failing = "SCREENRECORD_SetVideo",
         .errors = {"_SCREENRECORD_OpenVcap]Failed to ZU_CAP_Open(0x%x)!", capture_failed}},
        {.in = encoded_frames,
         .call = "ZU_CAP_Open",
         .failing = "video_capenc_open",
         .errors = {"_SCREENRECORD_OpenVcap]Failed to ZU_CAP_Open(0x%x)!",
                    "video_capenc_open] _SCREENRECORD_OpenVcap Failed!"}},
        {.in = stills,
         .call = "ZU_CAP_Open",
         .failing = "video_cap_open",
         .errors = {"_SCREENRECORD_OpenVcapNoEnc]Failed to ZU_CAP_Open(...)!",
                    "video_cap_open] _SCREENRECORD_OpenVcap Failed!"}},
        {.in = screen,
         .call = "ZU_DISP_GetHandle",
         .failing = "SCREENRECORD_SetVideo",
         .errors = {"_SCREENRECORD_ConnectDisp]Fail to ZU_DISP_GetHandle ",
                    "_SCREENRECORD_OpenVcap]Fail to Connect Disp!", capture_failed}},
        {.in = encoded_frames,
         .call = "ZU_DISP_GetHandle",
         .failing = "video_capenc_open",
         .errors = {"_SCREENRECORD_ConnectDisp]Fail to ZU_DISP_GetHandle ",
                    "_SCREENRECORD_OpenVcap]Fail to Connect Disp!",
                    "video_capenc_open] _SCREENRECORD_OpenVcap Failed!"}},
        {.in = stills,
         .call = "ZU_DISP_GetHandle",
         .failing = "video_cap_open",
         .errors = {"_SCREENRECORD_ConnectDisp]Fail to ZU_DISP_GetHandle ",
                    "_SCREENRECORD_OpenVcapNoEnc]Fail to Connect Disp!",
                    "video_cap_open] _SCREENRECORD_OpenVcap Failed!"}},
        {.in = screen,
         .call = "ZU_CAP_ConnectInput",
         .failing = "SCREENRECORD_SetVideo",
         .errors = {"_SCREENRECORD_ConnectDisp]Fail to connect disp",
                    "_SCREENRECORD_OpenVcap]Fail to Connect Disp!", capture_failed}},
        {.in = encoded_frames,
         .call = "ZU_CAP_ConnectInput",
         .failing = "video_capenc_open",
         .errors = {"_SCREENRECORD_ConnectDisp]Fail to connect disp",
                    "_SCREENRECORD_OpenVcap]Fail to Connect Disp!",
                    "video_capenc_open] _SCREENRECORD_OpenVcap Failed!"}},
        {.in = stills,
         .call = "ZU_CAP_ConnectInput",
         .failing = "video_cap_open",
         .errors = {"_SCREENRECORD_ConnectDisp]Fail to connect disp",
                    "_SCREENRECORD_OpenVcapNoEnc]Fail to Connect Disp!",
                    "video_cap_open] _SCREENRECORD_OpenVcap Failed!"}},
        {.in = screen,
         .call = "ZU_CAP_RegisterCallback",
         .failing = "SCREENRECORD_SetVideo",
         .errors = {"_SCREENRECORD_RegisterCallback]ZU_CAP_RegisterCallback fail! ",
                    "_SCREENRECORD_OpenVcap]Error: _SCREENRECORD_OpenVcap(*) "
                    "_SCREENRECORD_RegisterCallback failed",
                    capture_failed}},
        {.in = encoded_frames,
         .call = "ZU_CAP_RegisterCallback",
         .failing = "video_capenc_open",
         .errors = {"_SCREENRECORD_RegisterCallback]ZU_CAP_RegisterCallback fail! ",
                    "_SCREENRECORD_OpenVcap]Error: _SCREENRECORD_OpenVcap(*) "
                    "_SCREENRECORD_RegisterCallback failed",
                    "video_capenc_open] _SCREENRECORD_OpenVcap Failed!"}},
        {.in = screen,
         .call = "ZU_CAP_CaptureStart",
         .failing = "SCREENRECORD_Start",
         .errors = {"_SCREENRECORD_StartModule]Failed to ZU_CAP_CaptureStart(...)!",
                    "SCREENRECORD_Start]Error 0x%x: failed to Start VCAP"}},
        {.in = encoded_frames,
         .call = "ZU_CAP_CaptureStart",
         .failing = "video_capenc_start",
         .errors = {"_SCREENRECORD_StartModule]Failed to ZU_CAP_CaptureStart(...)!",
                    "video_capenc_start]Error 0x%x: failed to Start Vcap"}},
        {.in = encoded_frames | screen,
         .call = "ZU_CAP_ProcessBufDone",
         .errors = {"_SCREENRECORD_Callback]\033[35m_SCREENRECORD_Callback *[ "
                    "ZU_CAP_ProcessBufDone bufindex = 0 fail !!]\033[m"}},
        {.in = stills,
         .call = "ZU_CAP_ProcessBufDone",
         .errors = {"video_cap_captureScreen]\033[35mvideo_cap_captureScreen *[ "
                    "ZU_CAP_ProcessBufDone bufindex = 5 fail !!]\033[m"}},
        {.in = stills,
         .call = "ZU_CAP_CaptureOne",
         .failing = "video_cap_captureScreen",
         .errors = {"video_cap_captureScreen]ZU_CAP_CaptureOne fail! "}},
        {.in = encoded_frames | screen,
         .call = "ZU_CAP_CaptureStop",
         .errors = {"_SCREENRECORD_StopModule][DEMO TRANSCODE] ZU_VCAP_STOP FAIL"}},
        {.in = encoded_frames | screen,
         .call = "ZU_CAP_UnRegisterCallback",
         .errors =
             {"_SCREENRECORD_UnRegisterCallback]ZU_CAP_UnRegisterCallback fail! ",
              "_SCREENRECORD_StopModule][DEMO TRANSCODE] _SCREENRECORD_UnRegisterCallback FAIL"}},
        {.in = encoded_frames | screen | stills,
         .call = "ZU_CAP_DisconnectInput",
         .errors = {"_SCREENRECORD_StopModule][DEMO TRANSCODE] ZU_CAP_DisconnectInput FAIL"}},
        {.in = screen | inject | stills,
         .call = "ZU_CAP_DisconnectInput",
         .nth = only_with_others,
         .errors = {"_SCREENRECORD_ConnectDisp]Cap has connected to 0xd0"}},
        {.in = encoded_frames | screen | stills,
         .call = "ZU_CAP_Close",
         .errors = {"_SCREENRECORD_CloseVcap]ZU_CAP_Close Failed"}},
    };
}

Rules multiplexer()
{
    return {
        {.in = recordings,
         .call = "ZU_SYS_GetMmapLayout",
         .failing = "SCREENRECORD_SetTsMux",
         .errors = {"_SCREENRECORD_OpenTsmux]Error: Invalid mmap layout with id = 306",
                    multiplexer_failed}},
        {.in = recordings,
         .call = "ZU_OS_Pa2NonCachedVa",
         .nth = 1,
         .errors = {"_SCREENRECORD_OpenTsmux]phyMemAddr: 0x2000000 phyMiuBaseAddr: 0x100000000"}},
        {.in = recordings,
         .call = "ZU_TSMUX_Open",
         .failing = "SCREENRECORD_SetTsMux",
         .errors = {"_SCREENRECORD_OpenTsmux]Error 0x%x: failed to ZU_TSMUX_Open()",
                    multiplexer_failed}},
        {.in = recordings,
         .call = "ZU_TSMUX_RegisterCallback",
         .failing = "SCREENRECORD_SetTsMux",
         .errors = {"_SCREENRECORD_OpenTsmux]Error 0x%x: failed to ZU_TSMUX_RegisterCallback()",
                    multiplexer_failed}},
        {.in = recordings,
         .call = "ZU_TSMUX_SetAttr:0x203",
         .failing = "SCREENRECORD_SetTsMux",
         .errors = {"_SCREENRECORD_OpenTsmux]Error 0x%x: failed to "
                    "ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL)",
                    multiplexer_failed}},
        {.in = recordings,
         .call = "ZU_TSMUX_AttachMediaSource",
         .nth = 1,
         .failing = "SCREENRECORD_SetTsMux",
         .errors = {"SCREENRECORD_SetTsMux]Error 0x%x: failed to Attach Venc Stream for Tsmux"}},
        {.in = recordings,
         .call = "ZU_TSMUX_AttachMediaSource",
         .nth = 2,
         .failing = "SCREENRECORD_SetTsMux"},
        {.in = recordings,
         .call = "ZU_TSMUX_SetAttr:0x200",
         .nth = 1,
         .failing = "SCREENRECORD_SetTsMux",
         .errors = {"SCREENRECORD_SetTsMux]Error 0x%x: failed to "
                    "ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL, leaving time = "
                    "1000 ms)"}},
        {.in = recordings,
         .call = "ZU_TSMUX_Start",
         .failing = "SCREENRECORD_Start",
         .errors = {"_SCREENRECORD_StartModule]Error 0x%x: failed to ZU_TSMUX_Start()",
                    "SCREENRECORD_Start]Error 0x%x: failed to Start TSMUX"}},
        {.in = recordings, .call = "ZU_TSMUX_PushMediaData", .result = 15},
        {.in = recordings,
         .call = "ZU_TSMUX_PushMediaData",
         .errors = {"_SCREENRECORD_VencCbHandler]Error 0x%x: failed to "
                    "ZU_TSMUX_PushMediaData(VencCbHandler)"}},
        {.in = recordings, .call = "ZU_TSMUX_CopyOutputStream", .result = 0},
        {.in = recordings,
         .call = "ZU_TSMUX_CopyOutputStream",
         .errors =
             {"_SCREENRECORD_TsmuxTaskHandler]Error 0x%x: failed to ZU_TSMUX_CopyOutputStream()"}},
        {.in = recordings,
         .call = "ZU_TSMUX_SetAttr:0x200",
         .nth = 2,
         .errors = {"SCREENRECORD_Close]Failed to ZU_TSMUX_SetAttr()"}},
        {.in = recordings,
         .call = "ZU_TSMUX_DetachMediaSource",
         .errors = {"SCREENRECORD_Close]Failed to DetachMediaSource() Video"}},
        {.in = recordings,
         .call = "ZU_TSMUX_UnRegisterCallback",
         .errors = {"_SCREENRECORD_StopModule]Error 0x%x: failed to "
                    "ZU_TSMUX_UnRegisterCallback(u64CallbackId = 0x*)"}},
        {.in = recordings,
         .call = "ZU_TSMUX_SetAttr:0x202",
         .errors = {"_SCREENRECORD_StopModule]Error 0x%x: failed to "
                    "ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_IGNORE_REMAIN_MEDIA_DATA_WHEN_STOP, "
                    "bForceStop = 1)"}},
        {.in = recordings,
         .call = "ZU_TSMUX_Stop",
         .errors = {"_SCREENRECORD_StopModule]Failed to ZU_TSMUX_Stop() with force stop = 1"}},
        {.in = recordings,
         .call = "ZU_TSMUX_Close",
         .errors = {"_SCREENRECORD_CloseTsmux]Failed to ZU_TSMUX_Close()"}},
    };
}

Rules memory_and_watermark()
{
    return {
        {.in = inject,
         .call = "ZU_OS_Va2Pa",
         .failing = "video_capenc_setWatermark",
         .errors = {"video_capenc_setWatermark ZU_OS_Va2Pa failed with external memory"}},
        {.in = inject,
         .call = "ZU_OS_IommuOperation:GET_BUFFINFO",
         .failing = "video_capenc_setWatermark",
         .errors = {"video_capenc_setWatermark E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFINFO failed"}},
        {.in = inject,
         .call = "ZU_OS_IommuOperation:GET_BUFFD",
         .failing = "video_capenc_setWatermark",
         .errors = {"video_capenc_setWatermark E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD failed"}},
        {.in = inject,
         .call = "SrGlWorker::newWorker",
         .failing = "video_capenc_setWatermark",
         .errors = {"newWorker failed"}},
        {.in = inject,
         .call = "SrGlWorker::setWatermark",
         .failing = "video_capenc_setWatermark",
         .errors = {"setWatermark failed"}},
        {.in = stills,
         .call = "ZU_OS_AllocateIommuMemory",
         .failing = "video_cap_getCaptureBuffers",
         .errors = {"_video_cap_allocBuffer]_video_cap_allocBuffer ZU_OS_AllocateIommuMemory fail, "
                    "tag: vdec_fb, size: 0x8000"}},
        {.in = stills,
         .call = "ZU_OS_IommuOperation:GET_BUFFD",
         .failing = "video_cap_getCaptureBuffers",
         .errors = {"_video_cap_allocBuffer]_video_cap_allocBuffer GET_BUFFD fail, tag: vdec_fb, "
                    "size: 0x8000"}},
        {.in = inject,
         .call = "SrGlWorker::prepare",
         .failing = "video_capenc_start",
         .errors = {"prepare failed"}},
        {.in = inject,
         .call = "VideoBuffer::newBuffer",
         .errors = {"_SCREENRECORD_Callback]VideoBuffer::newBuffer failed"}},
        {.in = inject,
         .call = "SrGlWorker::render",
         .errors = {"_SCREENRECORD_Callback]SrGlWorker::onRender failed"}},
    };
}

Rules workers()
{
    return {
        {.in = recordings,
         .call = "ZU_OS_CreateMutex",
         .nth = 1,
         .failing = "SCREENRECORD_Start",
         .errors = after(no_mutex, writer_failed)},
        {.in = recordings,
         .call = "ZU_OS_CreateMutex",
         .nth = 2,
         .failing = "SCREENRECORD_Start",
         .errors = {no_mutex, "_SCREENRECORD_StartModule]Failed to ZU VENC CreateTask(...)!",
                    "SCREENRECORD_Start]Error 0x3: failed to Start VENC"}},
        {.in = files,
         .call = "ZU_OS_CreateMutex",
         .nth = 3,
         .failing = "SCREENRECORD_Start",
         .errors = after(no_mutex, audio_reader_failed)},
        {.in = files,
         .call = "ZU_OS_CreateMutex",
         .nth = 4,
         .failing = "SCREENRECORD_Start",
         .errors = after(no_mutex, video_reader_failed)},
        {.in = encoded_frames,
         .call = "ZU_OS_CreateMutex",
         .nth = 1,
         .failing = "video_capenc_start",
         .errors = {no_mutex, "_SCREENRECORD_StartModule]Failed to ZU VENC CreateTask(...)!",
                    "video_capenc_start]Error 0x3: failed to Start VENC"}},
        {.in = recordings,
         .call = "ZU_OS_CreateTask",
         .nth = 1,
         .failing = "SCREENRECORD_Start",
         .errors = after(no_task, writer_failed)},
        {.in = files,
         .call = "ZU_OS_CreateTask",
         .nth = 2,
         .failing = "SCREENRECORD_Start",
         .errors = after(no_task, audio_reader_failed)},
        {.in = files,
         .call = "ZU_OS_CreateTask",
         .nth = 3,
         .failing = "SCREENRECORD_Start",
         .errors = after(no_task, video_reader_failed)},
        {.in = encoded_frames,
         .call = "ZU_OS_ObtainMutex",
         .nth = 3,
         .failing = "video_capenc_getES"},
        {.in = encoded_frames,
         .call = "ZU_OS_ObtainMutex",
         .nth = 4,
         .failing = "video_capenc_setBitRate"},
        {.in = encoded_frames,
         .call = "ZU_OS_ObtainMutex",
         .nth = 5,
         .errors =
             {"video_capenc_requestKeyFrame]No key frame requested, the lock was not obtained"}},
    };
}

Rules allocations()
{
    return {
        {.in = recordings,
         .call = "malloc",
         .nth = 1,
         .failing = "SCREENRECORD_Open",
         .errors = {"SCREENRECORD_Open][DEMO TRANSCODE] FAILED malloc memory!"}},
        {.in = recordings,
         .call = "malloc",
         .nth = 2,
         .failing = "SCREENRECORD_SetAudio",
         .errors = {"SCREENRECORD_SetAudio][DEMO TRANSCODE] FAILED malloc memory!"}},
        {.in = recordings,
         .call = "malloc",
         .nth = 3,
         .failing = "SCREENRECORD_SetVideo",
         .errors = {"SCREENRECORD_SetVideo][DEMO TRANSCODE] FAILED malloc memory!"}},
        {.in = recordings,
         .call = "malloc",
         .nth = 4,
         .failing = "SCREENRECORD_Start",
         .errors = after(no_stack, writer_failed)},
        {.in = recordings,
         .call = "malloc",
         .nth = 5,
         .failing = "SCREENRECORD_Start",
         .errors = after(no_task, writer_failed)},
        {.in = recordings,
         .call = "malloc",
         .nth = 6,
         .errors =
             {"_SCREENRECORD_TsmuxTaskHandler]Error: failed to malloc(131072) for batch write"}},
        {.in = files,
         .call = "malloc",
         .nth = 7,
         .failing = "SCREENRECORD_Start",
         .errors = after(no_stack, audio_reader_failed)},
        {.in = files,
         .call = "malloc",
         .nth = 8,
         .failing = "SCREENRECORD_Start",
         .errors = after(no_task, audio_reader_failed)},
        {.in = files,
         .call = "malloc",
         .nth = 9,
         .failing = "SCREENRECORD_Start",
         .errors = after(no_stack, video_reader_failed)},
        {.in = files,
         .call = "malloc",
         .nth = 10,
         .failing = "SCREENRECORD_Start",
         .errors = after(no_task, video_reader_failed)},
        {.in = inject,
         .call = "malloc",
         .nth = 4,
         .failing = "video_capenc_setWatermark",
         .errors = {"video_capenc_setWatermark no memory for the watermark"}},
        {.in = copy,
         .call = "malloc",
         .nth = 4,
         .errors = {"video_capenc_setWatermark no memory for the watermark"}},
        {.in = encoded_frames,
         .call = "malloc",
         .failing = "video_capenc_open",
         .errors = {"video_capenc_open]malloc 2097152 failed"}},
    };
}

/** A call that no rule names fails unnoticed. */
const Rules& all_rules()
{
    static const Rules all = [] {
        Rules rules;
        for (const auto list : {modules, files_of_the_recording, sound, encoder, capture,
                                multiplexer, memory_and_watermark, workers, allocations})
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
    return (rule.in & kind) != 0 && rule.call == fault.call &&
           (!rule.result || rule.result == fault.result);
}

} // namespace

Expectation expected_of(Kind kind, const Fault& fault, bool wherever)
{
    Expectation e;
    for (const Rule& rule : all_rules()) {
        if (!is_for(rule, kind, fault) || (!wherever && rule.nth != 0 && rule.nth != fault.nth))
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
