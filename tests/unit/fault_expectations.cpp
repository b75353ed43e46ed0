#include "fault_expectations.h"

#include "middleware/state.h"

namespace faults {

namespace {

struct Row {
    const char* kinds;
    /** "name=7" is for that result alone, and comes before the others of the name */
    const char* call;
    /** 0 = whichever, -1 = what only several faults of it lead to */
    int nth;
    const char* failing;
    /** '|' between them; 0x%x and %d stand for the result, ~ for SCREENRECORD_ */
    const char* errors;
};

// Ends that several faults have in common.
#define VENC_FAILED "~SetVideo][DEMO TRANSCODE] Open Venc Failed!"
#define VCAP_FAILED "~SetVideo][DEMO TRANSCODE] Open Vcap Failed!"
#define NO_TS_FAILED "video_capenc_open] _~OpenVenc Failed!"
#define MUX_FAILED "~SetTsMux][DEMO TRANSCODE] Open Tsmux Failed!"
#define NO_MUTEX "_~CreateTask]Fail to create Trancode mutex|"
#define NO_TASK "_~CreateTask]Failed to ZU_OS_CreateTask(...)!|"
#define NO_STACK "_~CreateTask]Failed to malloc for VENC Get Source Tack Stack!|"
#define WRITER_FAILED                                                                              \
    "_~StartModule]Error 0x3: failed to _~CreateTask()|~Start]Error 0x3: failed to Start TSMUX"
#define AREADER_FAILED                                                                             \
    "_~StartModule]Failed to Create AUDIO Src Reader Handler Task(...)!|"                          \
    "~Start]Error 0x3: failed to Start AUDIO SrcReader"
#define VREADER_FAILED                                                                             \
    "_~StartModule]Failed to Create VIDEO Src Reader Handler Task(...)!|"                          \
    "~Start]Error 0x3: failed to Start VIDEO SrcReader"

/** A call that is in no row fails unnoticed. The order is that of a recording. */
// clang-format off
const Row rows[] = {
    {"rficsp", "ZU_SYS_Init", 0, "", "_~InitModule]Error 0x%x: failed to ZU_SYS_Init()"},
    {"rfp", "ZU_ACAP_Init=2", 0, "", ""},
    {"rf", "ZU_VENC_Init=2", 0, "", ""},
    {"rf", "ZU_TSMUX_Init=2", 0, "", ""},
    {"rf", "ZU_ACAP_Init", 0, "~Init", "_~InitModule]Failed to ZU_ACAP_Init(...)!|~Init]Failed to ZU_ACAP_Init(...)!"},
    {"p", "ZU_ACAP_Init", 0, "audio_cap_open", "_~InitModule]Failed to ZU_ACAP_Init(...)!|audio_cap_open] _~InitModule Failed!"},
    {"rf", "ZU_VENC_Init", 0, "~Init", "_~InitModule]Fail to call ZU_VENC_Init() %d|~Init]Failed to ZU_VENC_Init(...)!"},
    {"rf", "ZU_TSMUX_Init", 0, "~Init", "_~InitModule]Error 0x%x: failed to ZU_TSMUX_Init()|~Init]Failed to ZU Tsmux Init(...)!"},
    {"rf", "ZU_VIDEO_GetCaps", 0, "~SetVideo", "_~GetModuleCaps][DEMO TRANSCODE] Failed to Get Video Caps|_~OpenVenc]Venc Support!|" VENC_FAILED},
    {"rf", "ZU_VENC_GetCaps", 0, "~SetVideo", "_~GetModuleCaps][DEMO TRANSCODE] Failed to Get Venc Caps|_~OpenVenc]Venc Support!|" VENC_FAILED},
    {"ic", "ZU_VIDEO_GetCaps", 0, "video_capenc_open", "_~GetModuleCaps][DEMO TRANSCODE] Failed to Get Video Caps|_~OpenVenc_NoTs]Out of Venc Support size, 0x0@0)|" NO_TS_FAILED},
    {"ic", "ZU_VENC_GetCaps", 0, "video_capenc_open", "_~GetModuleCaps][DEMO TRANSCODE] Failed to Get Venc Caps|_~OpenVenc_NoTs]Out of Venc Support size, 0x0@0)|" NO_TS_FAILED},
    {"rfic", "ZU_AUDIO_GetCaps", 0, "", "_~GetModuleCaps][DEMO TRANSCODE] Failed to Get Audio Caps"},
    {"rfic", "ZU_ACAP_GetCaps", 0, "", "_~GetModuleCaps][DEMO TRANSCODE] Failed to Get Acap Caps"},

    {"rf", "ZU_FS_Fopen", 1, "~Open", "~Open]Error: failed to ZU_FS_Fopen(out.ts) for output TS stream"},
    {"f", "ZU_FS_Fopen", 2, "~SetAudio", "_~OpenSrcReader]Error: failed to ZU_FS_Fopen(a.aac) for Input Sourcen|~SetAudio][DEMO TRANSCODE] Open AUDIO Src File Reader Failed!"},
    {"f", "ZU_FS_Fopen", 3, "~SetVideo", "_~OpenSrcReader]Error: failed to ZU_FS_Fopen(a.nv12) for Input Sourcen|~SetVideo][DEMO TRANSCODE] Open Src File Reader Failed!"},
    {"r", "ZU_ACAP_Open", 0, "~SetAudio", "_~OpenAcap]ZU_ACAP_OPEN FAIL|~SetAudio][DEMO TRANSCODE] Open Acap Failed!"},
    {"p", "ZU_ACAP_Open", 0, "audio_cap_open", "_~OpenAcap]ZU_ACAP_OPEN FAIL|audio_cap_open] _~OpenAcap Failed!"},
    {"r", "ZU_ACAP_RegisterCallback", 0, "~SetAudio", "_~OpenAcap]_~OpenAcap[*] Error:%d Fail to register callback !.|~SetAudio][DEMO TRANSCODE] Open Acap Failed!"},
    {"rf", "ZU_VENC_Open", 0, "~SetVideo", "_~OpenVenc]Fail to call ZU_VENC_Open()|" VENC_FAILED},
    {"ic", "ZU_VENC_Open", 0, "video_capenc_open", "_~OpenVenc_NoTs]Fail to call ZU_VENC_Open()|" NO_TS_FAILED},
    {"r", "ZU_CAP_Open", 0, "~SetVideo", "_~OpenVcap]Failed to ZU_CAP_Open(0x%x)!|" VCAP_FAILED},
    {"ic", "ZU_CAP_Open", 0, "video_capenc_open", "_~OpenVcap]Failed to ZU_CAP_Open(0x%x)!|video_capenc_open] _~OpenVcap Failed!"},
    {"s", "ZU_CAP_Open", 0, "video_cap_open", "_~OpenVcapNoEnc]Failed to ZU_CAP_Open(...)!|video_cap_open] _~OpenVcap Failed!"},
    {"r", "ZU_DISP_GetHandle", 0, "~SetVideo", "_~ConnectDisp]Fail to ZU_DISP_GetHandle |_~OpenVcap]Fail to Connect Disp!|" VCAP_FAILED},
    {"ic", "ZU_DISP_GetHandle", 0, "video_capenc_open", "_~ConnectDisp]Fail to ZU_DISP_GetHandle |_~OpenVcap]Fail to Connect Disp!|video_capenc_open] _~OpenVcap Failed!"},
    {"s", "ZU_DISP_GetHandle", 0, "video_cap_open", "_~ConnectDisp]Fail to ZU_DISP_GetHandle |_~OpenVcapNoEnc]Fail to Connect Disp!|video_cap_open] _~OpenVcap Failed!"},
    {"r", "ZU_CAP_ConnectInput", 0, "~SetVideo", "_~ConnectDisp]Fail to connect disp|_~OpenVcap]Fail to Connect Disp!|" VCAP_FAILED},
    {"ic", "ZU_CAP_ConnectInput", 0, "video_capenc_open", "_~ConnectDisp]Fail to connect disp|_~OpenVcap]Fail to Connect Disp!|video_capenc_open] _~OpenVcap Failed!"},
    {"s", "ZU_CAP_ConnectInput", 0, "video_cap_open", "_~ConnectDisp]Fail to connect disp|_~OpenVcapNoEnc]Fail to Connect Disp!|video_cap_open] _~OpenVcap Failed!"},
    {"r", "ZU_CAP_RegisterCallback", 0, "~SetVideo", "_~RegisterCallback]ZU_CAP_RegisterCallback fail! |_~OpenVcap]Error: _~OpenVcap(*) _~RegisterCallback failed|" VCAP_FAILED},
    {"ic", "ZU_CAP_RegisterCallback", 0, "video_capenc_open", "_~RegisterCallback]ZU_CAP_RegisterCallback fail! |_~OpenVcap]Error: _~OpenVcap(*) _~RegisterCallback failed|video_capenc_open] _~OpenVcap Failed!"},
    {"i", "ZU_VENC_QueryEntireInjectBuffer=0", 0, "video_capenc_setWatermark", ""},
    {"c", "ZU_VENC_QueryEntireInjectBuffer=0", 0, "", ""},
    {"ic", "ZU_VENC_QueryEntireInjectBuffer", 0, "video_capenc_open", "_~OpenVenc_NoTs]Failed to ZU_VENC_QueryBuffer(...)!|" NO_TS_FAILED},
    {"rf", "ZU_SYS_GetMmapLayout", 0, "~SetTsMux", "_~OpenTsmux]Error: Invalid mmap layout with id = 306|" MUX_FAILED},
    {"rf", "ZU_OS_Pa2NonCachedVa", 1, "", "_~OpenTsmux]phyMemAddr: 0x2000000 phyMiuBaseAddr: 0x100000000"},
    {"rf", "ZU_TSMUX_Open", 0, "~SetTsMux", "_~OpenTsmux]Error 0x%x: failed to ZU_TSMUX_Open()|" MUX_FAILED},
    {"rf", "ZU_TSMUX_RegisterCallback", 0, "~SetTsMux", "_~OpenTsmux]Error 0x%x: failed to ZU_TSMUX_RegisterCallback()|" MUX_FAILED},
    {"rf", "ZU_TSMUX_SetAttr:0x203", 0, "~SetTsMux", "_~OpenTsmux]Error 0x%x: failed to ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL)|" MUX_FAILED},
    {"rf", "ZU_TSMUX_AttachMediaSource", 1, "~SetTsMux", "~SetTsMux]Error 0x%x: failed to Attach Venc Stream for Tsmux"},
    {"rf", "ZU_TSMUX_AttachMediaSource", 2, "~SetTsMux", ""},
    {"rf", "ZU_TSMUX_SetAttr:0x200", 1, "~SetTsMux", "~SetTsMux]Error 0x%x: failed to ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL, leaving time = 1000 ms)"},
    {"i", "ZU_OS_Va2Pa", 0, "video_capenc_setWatermark", "video_capenc_setWatermark ZU_OS_Va2Pa failed with external memory"},
    {"i", "ZU_OS_IommuOperation:GET_BUFFINFO", 0, "video_capenc_setWatermark", "video_capenc_setWatermark E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFINFO failed"},
    {"i", "ZU_OS_IommuOperation:GET_BUFFD", 0, "video_capenc_setWatermark", "video_capenc_setWatermark E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD failed"},
    {"i", "SrGlWorker::newWorker", 0, "video_capenc_setWatermark", "newWorker failed"},
    {"i", "SrGlWorker::setWatermark", 0, "video_capenc_setWatermark", "setWatermark failed"},
    {"s", "ZU_OS_AllocateIommuMemory", 0, "video_cap_getCaptureBuffers", "_video_cap_allocBuffer]_video_cap_allocBuffer ZU_OS_AllocateIommuMemory fail, tag: vdec_fb, size: 0x8000"},
    {"s", "ZU_OS_IommuOperation:GET_BUFFD", 0, "video_cap_getCaptureBuffers", "_video_cap_allocBuffer]_video_cap_allocBuffer GET_BUFFD fail, tag: vdec_fb, size: 0x8000"},

    {"i", "SrGlWorker::prepare", 0, "video_capenc_start", "prepare failed"},
    {"rf", "ZU_OS_CreateMutex", 1, "~Start", NO_MUTEX WRITER_FAILED},
    {"rf", "ZU_OS_CreateMutex", 2, "~Start", NO_MUTEX "_~StartModule]Failed to ZU VENC CreateTask(...)!|~Start]Error 0x3: failed to Start VENC"},
    {"f", "ZU_OS_CreateMutex", 3, "~Start", NO_MUTEX AREADER_FAILED},
    {"f", "ZU_OS_CreateMutex", 4, "~Start", NO_MUTEX VREADER_FAILED},
    {"ic", "ZU_OS_CreateMutex", 1, "video_capenc_start", NO_MUTEX "_~StartModule]Failed to ZU VENC CreateTask(...)!|video_capenc_start]Error 0x3: failed to Start VENC"},
    {"rf", "ZU_OS_CreateTask", 1, "~Start", NO_TASK WRITER_FAILED},
    {"f", "ZU_OS_CreateTask", 2, "~Start", NO_TASK AREADER_FAILED},
    {"f", "ZU_OS_CreateTask", 3, "~Start", NO_TASK VREADER_FAILED},
    {"rf", "ZU_TSMUX_Start", 0, "~Start", "_~StartModule]Error 0x%x: failed to ZU_TSMUX_Start()|~Start]Error 0x%x: failed to Start TSMUX"},
    {"rf", "ZU_VENC_Start", 0, "~Start", "_~StartModule]Fail to call ZU_VENC_Start()|~Start]Error 0x%x: failed to Start VENC"},
    {"ic", "ZU_VENC_Start", 0, "video_capenc_start", "_~StartModule]Fail to call ZU_VENC_Start()|video_capenc_start]Error 0x%x: failed to Start VENC"},
    {"r", "ZU_ACAP_Start", 0, "~Start", "_~StartModule]Failed to ZU_ACAP_Start(...)!|~Start]Error 0x%x: failed to Start ACAP"},
    {"p", "ZU_ACAP_Start", 0, "audio_cap_start", "_~StartModule]Failed to ZU_ACAP_Start(...)!|audio_cap_start] _~StartModule cap Failed!"},
    {"r", "ZU_CAP_CaptureStart", 0, "~Start", "_~StartModule]Failed to ZU_CAP_CaptureStart(...)!|~Start]Error 0x%x: failed to Start VCAP"},
    {"ic", "ZU_CAP_CaptureStart", 0, "video_capenc_start", "_~StartModule]Failed to ZU_CAP_CaptureStart(...)!|video_capenc_start]Error 0x%x: failed to Start Vcap"},

    {"ric", "ZU_CAP_ProcessBufDone", 0, "", "_~Callback]\033[35m_~Callback *[ ZU_CAP_ProcessBufDone bufindex = 0 fail !!]\033[m"},
    {"s", "ZU_CAP_ProcessBufDone", 0, "", "video_cap_captureScreen]\033[35mvideo_cap_captureScreen *[ ZU_CAP_ProcessBufDone bufindex = 5 fail !!]\033[m"},
    {"ric", "ZU_VENC_WriteBufferComplete", 0, "", "_~Callback]Failed to ZU_VENC_WriteBufferComplete(...)!"},
    {"f", "ZU_VENC_WriteBufferComplete", 0, "", "_~VreaderTaskHandler]Failed to ZU_VENC_WriteBufferComplete(...)!"},
    {"i", "VideoBuffer::newBuffer", 0, "", "_~Callback]VideoBuffer::newBuffer failed"},
    {"i", "SrGlWorker::render", 0, "", "_~Callback]SrGlWorker::onRender failed"},
    {"rf", "ZU_TSMUX_PushMediaData=15", 0, "", ""},
    {"rf", "ZU_TSMUX_PushMediaData", 0, "", "_~VencCbHandler]Error 0x%x: failed to ZU_TSMUX_PushMediaData(VencCbHandler)"},
    {"rf", "ZU_TSMUX_CopyOutputStream=0", 0, "", ""},
    {"rf", "ZU_TSMUX_CopyOutputStream", 0, "", "_~TsmuxTaskHandler]Error 0x%x: failed to ZU_TSMUX_CopyOutputStream()"},
    {"ic", "ZU_OS_ObtainMutex", 3, "video_capenc_getES", ""},
    {"ic", "ZU_OS_ObtainMutex", 4, "video_capenc_setBitRate", ""},
    {"ic", "ZU_VENC_SetAttr:0x1", 0, "video_capenc_setBitRate", ""},
    {"ic", "ZU_OS_ObtainMutex", 5, "", "video_capenc_requestKeyFrame]No key frame requested, the lock was not obtained"},
    {"s", "ZU_CAP_CaptureOne", 0, "video_cap_captureScreen", "video_cap_captureScreen]ZU_CAP_CaptureOne fail! "},
    {"p", "ZU_ACAP_GetAttr=0", 0, "", ""},
    {"p", "ZU_ACAP_GetAttr", 0, "audio_cap_getPCM", "audio_cap_getPCM]Error: audio_cap_getPCM: ZU_ACAP_GetAttr fail, ret=0x%x!!"},
    {"p", "ZU_ACAP_Read=0", 0, "", ""},
    {"p", "ZU_ACAP_Read", 0, "", "audio_cap_getPCM]audio_cap_getPCM: ZU_ACAP_Read fail, ret=0x%x!!"},

    {"ric", "ZU_CAP_CaptureStop", 0, "", "_~StopModule][DEMO TRANSCODE] ZU_VCAP_STOP FAIL"},
    {"ric", "ZU_CAP_UnRegisterCallback", 0, "", "_~UnRegisterCallback]ZU_CAP_UnRegisterCallback fail! |_~StopModule][DEMO TRANSCODE] _~UnRegisterCallback FAIL"},
    {"rics", "ZU_CAP_DisconnectInput", 0, "", "_~StopModule][DEMO TRANSCODE] ZU_CAP_DisconnectInput FAIL"},
    {"ris", "ZU_CAP_DisconnectInput", -1, "", "_~ConnectDisp]Cap has connected to 0xd0"},
    {"rp", "ZU_ACAP_Stop", 0, "", "_~StopModule][DEMO TRANSCODE] ZU_ACAP_STOP FAIL"},
    {"rfic", "ZU_VENC_Stop", 0, "", "_~StopModule][DEMO TRANSCODE] ZU_VENC_STOP FAIL"},
    {"rics", "ZU_CAP_Close", 0, "", "_~CloseVcap]ZU_CAP_Close Failed"},
    {"rp", "ZU_ACAP_UnRegisterCallback", 0, "", "_~CloseAcap]ZU_ACAP_UnRegisterCallback Failed"},
    {"rp", "ZU_ACAP_Close", 0, "", "_~CloseAcap]ZU_ACAP_Close Failed"},
    {"rf", "ZU_TSMUX_SetAttr:0x200", 2, "", "~Close]Failed to ZU_TSMUX_SetAttr()"},
    {"rfic", "ZU_VENC_Close", 0, "", "_~CloseVenc]ZU_VENC_Close Failed"},
    {"rf", "ZU_TSMUX_DetachMediaSource", 0, "", "~Close]Failed to DetachMediaSource() Video"},
    {"rf", "ZU_TSMUX_UnRegisterCallback", 0, "", "_~StopModule]Error 0x%x: failed to ZU_TSMUX_UnRegisterCallback(u64CallbackId = 0x*)"},
    {"rf", "ZU_TSMUX_SetAttr:0x202", 0, "", "_~StopModule]Error 0x%x: failed to ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_IGNORE_REMAIN_MEDIA_DATA_WHEN_STOP, bForceStop = 1)"},
    {"rf", "ZU_TSMUX_Stop", 0, "", "_~StopModule]Failed to ZU_TSMUX_Stop() with force stop = 1"},
    {"rf", "ZU_TSMUX_Close", 0, "", "_~CloseTsmux]Failed to ZU_TSMUX_Close()"},
    {"r", "ZU_FS_Fclose", 0, "~Close", "~Close]ZU_FS_Fclose Failed!"},
    {"f", "ZU_FS_Fclose", 3, "~Close", "~Close]ZU_FS_Fclose Failed!"},
    {"f", "ZU_FS_Fclose", 0, "", "_~CloseSrcReader]ZU_FS_Fclose Failed!"},
    {"rfp", "ZU_ACAP_DeInit", 0, "", "_~DeInitModule]Failed to Deinit ACap"},
    {"rf", "ZU_VENC_DeInit", 0, "", "_~DeInitModule]Failed to Deinit Venc"},
    {"rf", "ZU_TSMUX_DeInit", 0, "", "_~DeInitModule]Failed to Deinit Tsmux"},

    {"rf", "malloc", 1, "~Open", "~Open][DEMO TRANSCODE] FAILED malloc memory!"},
    {"rf", "malloc", 2, "~SetAudio", "~SetAudio][DEMO TRANSCODE] FAILED malloc memory!"},
    {"rf", "malloc", 3, "~SetVideo", "~SetVideo][DEMO TRANSCODE] FAILED malloc memory!"},
    {"rf", "malloc", 4, "~Start", NO_STACK WRITER_FAILED},
    {"rf", "malloc", 5, "~Start", NO_TASK WRITER_FAILED},
    {"rf", "malloc", 6, "", "_~TsmuxTaskHandler]Error: failed to malloc(131072) for batch write"},
    {"f", "malloc", 7, "~Start", NO_STACK AREADER_FAILED},
    {"f", "malloc", 8, "~Start", NO_TASK AREADER_FAILED},
    {"f", "malloc", 9, "~Start", NO_STACK VREADER_FAILED},
    {"f", "malloc", 10, "~Start", NO_TASK VREADER_FAILED},
    {"i", "malloc", 4, "video_capenc_setWatermark", "video_capenc_setWatermark no memory for the watermark"},
    {"c", "malloc", 4, "", "video_capenc_setWatermark no memory for the watermark"},
    {"ic", "malloc", 0, "video_capenc_open", "video_capenc_open]malloc 2097152 failed"},
};
// clang-format on

void replace_all(std::string& text, const std::string& from, const std::string& to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

std::vector<std::string> split(std::string text, s64 result)
{
    replace_all(text, "0x%x", middleware::hex(static_cast<u32>(result)));
    replace_all(text, "%d", std::to_string(result));
    replace_all(text, "~", "SCREENRECORD_");
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, '|');)
        parts.push_back(part);
    return parts;
}

bool is_for(const Row& row, char kind, const Fault& fault)
{
    return std::string_view(row.kinds).find(kind) != std::string_view::npos &&
           (row.call == fault.call || row.call == fault.call + "=" + std::to_string(fault.result));
}

} // namespace

Expectation expected_of(char kind, const Fault& fault, bool wherever)
{
    Expectation e;
    for (const Row& row : rows) {
        if (!is_for(row, kind, fault) || (!wherever && row.nth != 0 && row.nth != fault.nth))
            continue;
        for (const std::string& step : split(row.failing, fault.result))
            e.failing.insert(step);
        for (std::string& line : split(row.errors, fault.result))
            e.errors.push_back(std::move(line));
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
