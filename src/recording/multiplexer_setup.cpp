#include <cstdio>

#include <screenrecord/screenrecord.h>
#include <zu3/sys.h>
#include <zu3/tsmux.h>

#include "modules/module.h"
#include "table/control_lock.h"

namespace {

enum {
    INTERLEAVING_MS = 1000,
    VIDEO_PID = 0x0101,
    AUDIO_PID = 0x0102,
    VIDEO_STREAM_ID = 0xE0, /**< first video stream, ISO/IEC 13818-1 table 2-22 */
    AUDIO_STREAM_ID = 0xC0, /**< first audio stream, the same table */
};

/** The region of the multiplexer's output, as it is mapped. */
struct OutputBuffer {
    u64 u64VirtAddr;
    u32 u32Size;
};

/** Reports a full output buffer; only the writer's regular copying relieves it. */
u32 _SCREENRECORD_TsmuxCallback(s32, u32 u32Event, void*, void* pUserData)
{
    const u64 u64CallbackId = pUserData != nullptr ? static_cast<CrossThread<u64>*>(pUserData)->Get() : 0;
    if (u32Event == E_ZU_TSMUX_EVENT_OUTPUT_BUFFER_FULL)
        printf("\033[1;33mE_ZU_TSMUX_EVENT_OUTPUT_BUFFER_FULL: u64CallbackId = 0x%llx\n\033[0m",
               static_cast<unsigned long long>(u64CallbackId));
    return ZU_OK;
}

/** Maps the region uncached or, where that cannot be had, cached. */
bool MapOutputBuffer(SCREENRECORD_TaskCtrl_s* pstTask, OutputBuffer* pstBuffer)
{
    ZU_SYS_MmapLayout_t stLayout = {};
    if (ZU_SYS_GetMmapLayout(ZU_SYS_MMAP_ID_TSMUX_OUTPUT, &stLayout) != ZU_OK ||
        stLayout.u32RegionSize == 0) {
        SR_HELPER_LOGE("Error: Invalid mmap layout with id = %d\n", ZU_SYS_MMAP_ID_TSMUX_OUTPUT);
        return false;
    }
    const u64 u64PhyAddr = stLayout.phyMiuBaseAddr + stLayout.phyMemAddr;
    pstBuffer->u32Size = stLayout.u32RegionSize;
    if (ZU_OS_Pa2NonCachedVa(u64PhyAddr, &pstBuffer->u64VirtAddr) != ZU_OK) {
        SR_HELPER_LOGE("phyMemAddr: 0x%llx phyMiuBaseAddr: 0x%llx\n",
                       static_cast<unsigned long long>(stLayout.phyMemAddr),
                       static_cast<unsigned long long>(stLayout.phyMiuBaseAddr));
        if (ZU_OS_Pa2CachedVa(u64PhyAddr, &pstBuffer->u64VirtAddr) != ZU_OK) {
            SR_HELPER_LOGE("Error: failed to ZU_OS_PA2CachedVA(0x%x)\n", static_cast<u32>(u64PhyAddr));
            return false;
        }
        pstTask->bOutBufCached = 1;
    }
    if (pstTask->bOutBufCached == 1)
        ZU_OS_DcacheFlush(pstBuffer->u64VirtAddr, pstBuffer->u32Size);
    ZU_OS_FlushMemory();
    return true;
}

bool OpenDevice(const SCREENRECORD_SrcInfo_s& stSrcInfo, SCREENRECORD_TaskCtrl_s* pstTask,
                const OutputBuffer& stBuffer)
{
    ZU_TSMUX_OpenParams_t stParams = {};
    stParams.u32TsPacketSize = stSrcInfo.u32TsPacketSize == 188 ? 188 : 192;
    stParams.u8Reserved1 = 1;
    stParams.bCbrEnable = stSrcInfo.u32CbrBitrateMb != 0;
    stParams.u16Pid0 = 0x1000;
    stParams.u16Pid1 = 0x0100;
    stParams.u16Pid2 = 0x0100;
    stParams.u16Pid3 = 0x0101;
    // The record's rate is modulo 2^32, so the excess is cut off here and not by the shift.
    stParams.u32CbrBitrate = static_cast<u32>(static_cast<u64>(stSrcInfo.u32CbrBitrateMb) << 20);
    stParams.u32OutBufVa = static_cast<u32>(stBuffer.u64VirtAddr);
    stParams.u32OutBufSize = stBuffer.u32Size;
    const u32 u32Result = ZU_TSMUX_Open(&stParams, pstTask->u32Handle.OutputArgument());
    if (u32Result == ZU_OK)
        return true;
    SR_HELPER_LOGE("Error 0x%x: failed to ZU_TSMUX_Open()\n", u32Result);
    return false;
}

bool RegisterTsmuxCallback(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const ZU_TSMUX_CallbackParams_t stParams = {.u64CallbackId = 0,
                                                .pfnCallback = _SCREENRECORD_TsmuxCallback,
                                                .u32EventMask = 3,
                                                .pUserData = &pstTask->u64CallbackId,
                                                .u32Reserved = 0};
    u64 u64CallbackId = 0;
    const u32 u32Result = ZU_TSMUX_RegisterCallback(pstTask->u32Handle, &stParams, &u64CallbackId);
    if (u32Result != ZU_OK) {
        SR_HELPER_LOGE("Error 0x%x: failed to ZU_TSMUX_RegisterCallback()\n", u32Result);
        return false;
    }
    pstTask->u64CallbackId = u64CallbackId;
    return true;
}

bool ControlPtsContinuity(const SCREENRECORD_TaskCtrl_s* pstTask)
{
    const ZU_TSMUX_PtsContinuity_t stValue = {
        .bEnable = 1, .u32Reserved = 0, .u64MaxForward = 180000, .u64MaxBackward = 90000};
    const u32 u32Result =
        ZU_TSMUX_SetAttr(pstTask->u32Handle, E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL, &stValue);
    if (u32Result == ZU_OK)
        return true;
    SR_HELPER_LOGE("Error 0x%x: failed to ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL)\n",
                   u32Result);
    return false;
}

bool _SCREENRECORD_OpenTsmux(SCREENRECORD_SrcInfo_s& stSrcInfo, SCREENRECORD_TaskCtrl_s* pstTask)
{
    const LogAs as(__func__);
    SR_LOGD("%s(u32TsPacketSize = %d, u32CbrBitrateMb = %ld M bps)\n", __func__,
            static_cast<int>(stSrcInfo.u32TsPacketSize), static_cast<long>(stSrcInfo.u32CbrBitrateMb));
    OutputBuffer stBuffer = {};
    if (!MapOutputBuffer(pstTask, &stBuffer) || !OpenDevice(stSrcInfo, pstTask, stBuffer))
        return false;
    if (!RegisterTsmuxCallback(pstTask) || !ControlPtsContinuity(pstTask)) {
        _SCREENRECORD_CloseTsmux(pstTask);
        return false;
    }
    pstTask->u64OutBufVa = stBuffer.u64VirtAddr;
    pstTask->u32OutBufSize = stBuffer.u32Size;
    stSrcInfo.bTsmuxOpened = 1;
    return true;
}

/** Attaches a media source and notes its id in the record whose frames go there. Returns the middleware's
 * result. */
u32 AttachSource(u32 u32TsmuxHandle, u32 eStreamType, u16 u16Pid, u8 u8StreamId,
                 SCREENRECORD_TaskCtrl_s& stTask)
{
    const ZU_TSMUX_MediaSourceParams_t stParams = {.u32Reserved0 = 0,
                                                   .eStreamType = eStreamType,
                                                   .u16Pid = u16Pid,
                                                   .u8StreamId = u8StreamId,
                                                   .u8Reserved1 = 0};
    return ZU_TSMUX_AttachMediaSource(u32TsmuxHandle, &stParams, stTask.u64MuxSrcId.OutputArgument());
}

/** Attaches what is configured, video first; with both, switches interleaving on. */
bool AttachSources(SCREENRECORD_SlotCtrl_s& stSlot)
{
    const SCREENRECORD_SrcInfo_s& stSrcInfo = stSlot.stSrcInfo;
    const u32 u32Tsmux = stSlot.astTaskCtrl[E_SCREENRECORD_MODULE_TSMUX].u32Handle;
    if (stSrcInfo.bVideoSrcAssigned == 1) {
        const u32 eType = stSrcInfo.eVencType == E_ZU_VENC_CODEC_H264 ? E_ZU_TSMUX_STREAM_VIDEO_H264
                                                                      : E_ZU_TSMUX_STREAM_VIDEO_OTHER;
        const u32 u32Result = AttachSource(u32Tsmux, eType, VIDEO_PID, VIDEO_STREAM_ID,
                                           stSlot.astTaskCtrl[E_SCREENRECORD_MODULE_VENC]);
        if (u32Result != ZU_OK) {
            SR_HELPER_LOGE("Error 0x%x: failed to Attach Venc Stream for Tsmux\n", u32Result);
            return false;
        }
    }
    if (stSrcInfo.bAudioSrcAssigned == 1) {
        const u32 eType =
            stSrcInfo.eAencType == 1 ? E_ZU_TSMUX_STREAM_AUDIO_MP3 : E_ZU_TSMUX_STREAM_AUDIO_AAC;
        if (AttachSource(u32Tsmux, eType, AUDIO_PID, AUDIO_STREAM_ID,
                         stSlot.astTaskCtrl[E_SCREENRECORD_MODULE_AENC]) != ZU_OK)
            return false;
    }
    if (stSrcInfo.bVideoSrcAssigned != 1 || stSrcInfo.bAudioSrcAssigned != 1)
        return true;
    const ZU_TSMUX_AvInterleaving_t stOn = {.bEnable = 1, .u32LeavingTimeMs = INTERLEAVING_MS};
    const u32 u32Result = ZU_TSMUX_SetAttr(u32Tsmux, E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL, &stOn);
    if (u32Result == ZU_OK)
        return true;
    SR_HELPER_LOGE(
        "Error 0x%x: failed to ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL, leaving time = "
        "%ld ms)\n",
        u32Result, static_cast<long>(INTERLEAVING_MS));
    return false;
}

} // namespace

u32 SCREENRECORD_SetTsMux(u32* pu32Handle, u32* pu32TsPacketSize, u32* pu32CbrBitrateMb)
{
    const LogAs as(__func__);
    const ControlLock lock(_controlMutex);
    if (!_SCREENRECORD_CheckIdleSlot(pu32Handle))
        return 0;
    SCREENRECORD_SlotCtrl_s& stSlot = _astSlotCtrl[*pu32Handle];
    SCREENRECORD_SrcInfo_s& stSrcInfo = stSlot.stSrcInfo;
    if (stSrcInfo.bVideoSrcAssigned == 0 && stSrcInfo.bAudioSrcAssigned == 0) {
        SR_LOGE("Need to Assign one source!\n");
        return 0;
    }
    stSrcInfo.bTsmuxOpened = 0;
    stSrcInfo.u32TsPacketSize = 0;
    stSrcInfo.u32CbrBitrateMb = 0;
    if (pu32TsPacketSize != nullptr)
        stSrcInfo.u32TsPacketSize = *pu32TsPacketSize == 192 ? 192 : 188;
    if (pu32CbrBitrateMb != nullptr)
        stSrcInfo.u32CbrBitrateMb = *pu32CbrBitrateMb;

    if (!_SCREENRECORD_OpenTsmux(stSrcInfo, &stSlot.astTaskCtrl[E_SCREENRECORD_MODULE_TSMUX])) {
        SR_LOGE("[DEMO TRANSCODE] Open Tsmux Failed!\n");
        SCREENRECORD_Close(pu32Handle);
        return 0;
    }
    if (!AttachSources(stSlot)) {
        SCREENRECORD_Close(pu32Handle);
        return 0;
    }
    return 1;
}
