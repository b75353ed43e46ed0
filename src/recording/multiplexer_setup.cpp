#include <screenrecord/screenrecord.h>
#include <zu3/tsmux.h>

#include "base/log.h"
#include "modules/multiplexer.h"
#include "table/control_call.h"

namespace {

enum {
    INTERLEAVING_MS = 1000,
    VIDEO_PID = 0x0101,
    AUDIO_PID = 0x0102,
    /** first video stream, ISO/IEC 13818-1 table 2-22 */
    VIDEO_STREAM_ID = 0xE0,
    /** first audio stream, the same table */
    AUDIO_STREAM_ID = 0xC0,
};

/**
 * Attaches a media source and stores its id in the record of the module that feeds it. Returns the
 * middleware's result.
 */
u32 AttachSource(u32 u32TsmuxHandle, u32 eStreamType, u16 u16Pid, u8 u8StreamId,
                 SCREENRECORD_TaskCtrl_s& stTask)
{
    const ZU_TSMUX_MediaSourceParams_t stParams = {.u32Reserved0 = 0,
                                                   .eStreamType = eStreamType,
                                                   .u16Pid = u16Pid,
                                                   .u8StreamId = u8StreamId,
                                                   .u8Reserved1 = 0};
    return ZU_TSMUX_AttachMediaSource(u32TsmuxHandle, &stParams,
                                      stTask.u64MuxSrcId.OutputArgument());
}

/** Attaches the configured sources, video first; enables interleaving if there are both. */
bool AttachSources(SCREENRECORD_SlotCtrl_s& stSlot)
{
    const SCREENRECORD_SrcInfo_s& stSrcInfo = stSlot.stSrcInfo;
    const u32 u32Tsmux = stSlot.astTaskCtrl[E_SCREENRECORD_MODULE_TSMUX].u32Handle;
    if (stSrcInfo.bVideoSrcAssigned == 1) {
        const u32 eType = stSrcInfo.eVencType == E_ZU_VENC_CODEC_H264
                              ? E_ZU_TSMUX_STREAM_VIDEO_H264
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
    const u32 u32Result =
        ZU_TSMUX_SetAttr(u32Tsmux, E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL, &stOn);
    if (u32Result == ZU_OK)
        return true;
    SR_HELPER_LOGE(
        "Error 0x%x: failed to ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL, leaving time = %ld ms)\n",
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
