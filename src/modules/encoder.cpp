#include "modules/encoder.h"

#include "base/log.h"
#include "modules/encoder_output.h"
#include "modules/inject_buffer.h"
#include "modules/module_stop.h"
#include "table/worker_tasks.h"

namespace {

/**
 * Beyond every level of H.264, so the encoder chooses. The file's writer limits a recording's rate.
 */
constexpr u32 RECORDING_BITRATE = 0x100000;

/** Android's AVC profile code to profile_idc (ISO/IEC 14496-10, 7.4.2.1.1). */
u32 _SCREENRECORD_Venc_Profile_Convert(u32 u32Profile)
{
    switch (u32Profile) {
    case 1:
        return 66;
    case 2:
        return 77;
    default:
        SR_LOGE("not surport venc profile =%x!\n", u32Profile);
        return 0;
    }
}

/** Android's AVC level code, one bit per level, to a hundred times the level's number. */
u32 _SCREENRECORD_Venc_Level_Convert(u32 u32Level)
{
    static constexpr u32 au32Levels[] = {100, 101, 110, 120, 130, 200, 210,
                                         220, 300, 310, 320, 400, 410};
    for (u32 u32Bit = 0; u32Bit < sizeof(au32Levels) / sizeof(au32Levels[0]); u32Bit++)
        if (u32Level == 1u << u32Bit)
            return au32Levels[u32Bit];
    SR_LOGE("not surport venc level =%x!\n", u32Level);
    return 0;
}

ZU_VENC_OpenParams_t CommonParams(u32 u32Width, u32 u32Height, u32 u32FrameRate,
                                  ZU_VENC_Callback pfnOutput)
{
    ZU_VENC_OpenParams_t stOpen = {};
    stOpen.pu8Name = "venc0";
    stOpen.u32Width = u32Width;
    stOpen.u32Height = u32Height;
    stOpen.u32FrameRate = u32FrameRate;
    stOpen.eCodecType = E_ZU_VENC_CODEC_H264;
    stOpen.pfnCallback = pfnOutput;
    stOpen.u32EventMask = ZU_VENC_EVENT_FRAME;
    return stOpen;
}

/** Logs under the name `pCaller`. */
bool OpenDevice(const char* pCaller, const ZU_VENC_OpenParams_t& stParams,
                SCREENRECORD_TaskCtrl_s* pstTask)
{
    const LogAs as(pCaller);
    SR_HELPER_LOGD("output frame: [%ld, %ld] frame rate = %ld\n",
                   static_cast<long>(stParams.u32Width), static_cast<long>(stParams.u32Height),
                   static_cast<long>(stParams.u32FrameRate));
    if (ZU_VENC_Open(&stParams, pstTask->u32Handle.OutputArgument()) == ZU_OK)
        return true;
    SR_HELPER_LOGE("Fail to call ZU_VENC_Open()\n");
    _SCREENRECORD_CloseVenc(pstTask);
    return false;
}

} // namespace

u32 _SCREENRECORD_InitVenc()
{
    const ZU_VENC_InitParams_t stParams = {};
    const u32 u32Result = ZU_VENC_Init(&stParams);
    if (u32Result != ZU_OK && u32Result != ZU_ALREADY_INITIALISED)
        SR_HELPER_LOGE("Fail to call ZU_VENC_Init() %d\n", static_cast<int>(u32Result));
    return u32Result;
}

bool _SCREENRECORD_VencSupports(u32 u32Width, u32 u32Height, u32 u32FrameRate)
{
    const ZU_VENC_Caps_t& stCaps = _stModuleCaps.stVencCaps;
    return u32Width <= stCaps.u32MaxWidth && u32Height <= stCaps.u32MaxHeight &&
           u32FrameRate <= stCaps.u32MaxFrameRate;
}

u32 _SCREENRECORD_OpenVenc(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    const SCREENRECORD_SrcInfo_s& stSrcInfo = pstSlot->stSrcInfo;
    if (!_SCREENRECORD_VencSupports(stSrcInfo.u32Width, stSrcInfo.u32Height,
                                    stSrcInfo.u32FrameRate)) {
        SR_LOGE("Venc Support!\n");
        return ZU_FAILURE;
    }
    ZU_VENC_OpenParams_t stParams =
        CommonParams(stSrcInfo.u32Width, stSrcInfo.u32Height, stSrcInfo.u32FrameRate,
                     _SCREENRECORD_VencCbHandler);
    stParams.eColorFormat = E_ZU_VENC_COLOR_COPY;
    stParams.u32Bitrate = RECORDING_BITRATE;
    stParams.eCodecType = stSrcInfo.eVencType;
    if (!OpenDevice(__func__, stParams, pstTask))
        return ZU_FAILURE;
    // Pictures go to slot 0's encoder. If that is this one, which lends buffers, or is not open,
    // the inject buffer of an earlier capture-encode session went with its encoder.
    const u32 u32PictureEncoder = _astSlotCtrl[0].astTaskCtrl[E_SCREENRECORD_MODULE_VENC].u32Handle;
    if (u32PictureEncoder == pstTask->u32Handle || u32PictureEncoder == 0)
        _bUseEntireInjectBuf = 0;
    return ZU_OK;
}

u32 _SCREENRECORD_OpenVenc_NoTs(const CapEnc_OpenParams& stParams, ZU_VENC_Callback pfnOutput)
{
    if (!_SCREENRECORD_VencSupports(stParams.width, stParams.height, stParams.frameRate)) {
        const ZU_VENC_Caps_t& stCaps = _stModuleCaps.stVencCaps;
        SR_LOGE("Out of Venc Support size, %ux%u@%u)", stCaps.u32MaxWidth, stCaps.u32MaxHeight,
                stCaps.u32MaxFrameRate);
        return ZU_FAILURE;
    }
    ZU_VENC_OpenParams_t stOpen =
        CommonParams(stParams.width, stParams.height, stParams.frameRate, pfnOutput);
    stOpen.eColorFormat = E_ZU_VENC_COLOR_INJECT;
    stOpen.u32Bitrate = stParams.outputBitrate >> 10;
    stOpen.u32Profile = _SCREENRECORD_Venc_Profile_Convert(stParams.profile);
    stOpen.u32Level = _SCREENRECORD_Venc_Level_Convert(stParams.level);
    SCREENRECORD_TaskCtrl_s* pstTask = _SCREENRECORD_TaskOf(0, E_SCREENRECORD_MODULE_VENC);
    if (!OpenDevice(__func__, stOpen, pstTask))
        return ZU_FAILURE;
    if (!_SCREENRECORD_QueryInjectBuffer(pstTask->u32Handle, stParams.width, stParams.height)) {
        SR_LOGE("Failed to ZU_VENC_QueryBuffer(...)!\n");
        _SCREENRECORD_CloseVenc(pstTask);
        return ZU_FAILURE;
    }
    return ZU_OK;
}

u32 _SCREENRECORD_StartVenc(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId)
{
    u32 u32Result = _SCREENRECORD_CreateTask(pstTask, u32SlotId, 0, nullptr);
    if (u32Result != ZU_OK) {
        SR_HELPER_LOGE("Failed to ZU VENC CreateTask(...)!\n");
        return u32Result;
    }
    pstTask->u32InBufIndex = 0;
    pstTask->u32LastInBufIndex = 0;
    const ZU_VENC_StartParams_t stParams = {};
    u32Result = ZU_VENC_Start(pstTask->u32Handle, &stParams);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE("Fail to call ZU_VENC_Start()\n");
    return u32Result;
}

void _SCREENRECORD_StopVenc(SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (ZU_VENC_Stop(pstTask->u32Handle) != ZU_OK)
        SR_HELPER_LOGE("[DEMO TRANSCODE] ZU_VENC_STOP FAIL\n");
}

u32 _SCREENRECORD_CloseVenc(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const LogAs as(__func__);
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    if (const ModuleStop stop(pstTask, __func__); stop.Needed())
        _SCREENRECORD_StopVenc(pstTask);
    const u32 u32Handle = _SCREENRECORD_WithdrawHandle(pstTask);
    _SCREENRECORD_PutInjectDescriptor();
    if (u32Handle != 0 && ZU_VENC_Close(u32Handle) != ZU_OK)
        SR_LOGE("ZU_VENC_Close Failed\n");
    return ZU_OK;
}
