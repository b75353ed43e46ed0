#include "modules/multiplexer.h"

#include <cstdio>

#include <zu3/sys.h>
#include <zu3/tsmux.h>

#include "base/log.h"
#include "modules/module_stop.h"
#include "modules/multiplexer_writer.h"
#include "table/worker_tasks.h"

namespace {

/** The mapped region of the multiplexer's output. */
struct OutputBuffer {
    u64 u64VirtAddr;
    u32 u32Size;
};

/** Reports a full output buffer. The writer's next copy makes room. */
u32 _SCREENRECORD_TsmuxCallback(s32, u32 u32Event, void*, void* pUserData)
{
    const u64 u64CallbackId =
        pUserData != nullptr ? static_cast<CrossThread<u64>*>(pUserData)->Get() : 0;
    if (u32Event == E_ZU_TSMUX_EVENT_OUTPUT_BUFFER_FULL)
        printf("\033[1;33mE_ZU_TSMUX_EVENT_OUTPUT_BUFFER_FULL: u64CallbackId = 0x%llx\n\033[0m",
               static_cast<unsigned long long>(u64CallbackId));
    return ZU_OK;
}

/** Maps the region uncached; if that fails, cached. */
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
            SR_HELPER_LOGE("Error: failed to ZU_OS_PA2CachedVA(0x%x)\n",
                           static_cast<u32>(u64PhyAddr));
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
    // The record's rate is modulo 2^32: truncate here, not in the shift.
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
    SR_HELPER_LOGE(
        "Error 0x%x: failed to ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL)\n",
        u32Result);
    return false;
}

} // namespace

u32 _SCREENRECORD_InitTsmux()
{
    const ZU_TSMUX_InitParams_t stParams = {};
    const u32 u32Result = ZU_TSMUX_Init(&stParams);
    if (u32Result != ZU_OK && u32Result != ZU_ALREADY_INITIALISED)
        SR_HELPER_LOGE("Error 0x%x: failed to ZU_TSMUX_Init()\n", u32Result);
    return u32Result;
}

bool _SCREENRECORD_OpenTsmux(SCREENRECORD_SrcInfo_s& stSrcInfo, SCREENRECORD_TaskCtrl_s* pstTask)
{
    const LogAs as(__func__);
    SR_LOGD("%s(u32TsPacketSize = %d, u32CbrBitrateMb = %ld M bps)\n", __func__,
            static_cast<int>(stSrcInfo.u32TsPacketSize),
            static_cast<long>(stSrcInfo.u32CbrBitrateMb));
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

/**
 * Creates the writer before it starts the multiplexer, so the output is drained from the first
 * packet on.
 */
u32 _SCREENRECORD_StartTsmux(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId)
{
    u32 u32Result = _SCREENRECORD_CreateTask(pstTask, u32SlotId, SCREENRECORD_WRITER_STACK_SIZE,
                                             _SCREENRECORD_TsmuxTaskHandler);
    if (u32Result != ZU_OK) {
        SR_HELPER_LOGE("Error 0x%x: failed to _SCREENRECORD_CreateTask()\n", u32Result);
        return u32Result;
    }
    const ZU_TSMUX_StartParams_t stParams = {};
    u32Result = ZU_TSMUX_Start(pstTask->u32Handle, &stParams);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE("Error 0x%x: failed to ZU_TSMUX_Start()\n", u32Result);
    return u32Result;
}

void _SCREENRECORD_StopTsmux(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const ZU_TSMUX_CallbackParams_t stRemoval = {.u64CallbackId = pstTask->u64CallbackId,
                                                 .pfnCallback = nullptr,
                                                 .u32EventMask = 0,
                                                 .pUserData = nullptr,
                                                 .u32Reserved = 0};
    u32 u32Result = ZU_TSMUX_UnRegisterCallback(pstTask->u32Handle, &stRemoval);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE(
            "Error 0x%x: failed to ZU_TSMUX_UnRegisterCallback(u64CallbackId = 0x%llx)\n",
            u32Result, static_cast<unsigned long long>(stRemoval.u64CallbackId));

    const u8 bForceStop = 1;
    u32Result = ZU_TSMUX_SetAttr(
        pstTask->u32Handle, E_ZU_TSMUX_PARAMTYPE_IGNORE_REMAIN_MEDIA_DATA_WHEN_STOP, &bForceStop);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE(
            "Error 0x%x: failed to ZU_TSMUX_SetAttr(E_ZU_TSMUX_PARAMTYPE_IGNORE_REMAIN_MEDIA_DATA_WHEN_STOP, bForceStop = %d)\n",
            u32Result, bForceStop);
    if (ZU_TSMUX_Stop(pstTask->u32Handle) != ZU_OK)
        SR_HELPER_LOGE("Failed to ZU_TSMUX_Stop() with force stop = %d\n", bForceStop);
}

u32 _SCREENRECORD_CloseTsmux(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const LogAs as(__func__);
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    if (const ModuleStop stop(pstTask, __func__); stop.Needed())
        _SCREENRECORD_StopTsmux(pstTask);
    const u32 u32Handle = pstTask->u32Handle.Exchange(0);
    // The callbacks of its slot's encoder push into the multiplexer.
    if (SCREENRECORD_SlotCtrl_s* pstSlot = _SCREENRECORD_SlotOf(pstTask))
        pstSlot->astTaskCtrl[E_SCREENRECORD_MODULE_VENC].callbackGate.Drain();
    if (u32Handle != 0 && ZU_TSMUX_Close(u32Handle) != ZU_OK)
        SR_LOGE("Failed to ZU_TSMUX_Close()\n");
    if (pstTask->u64OutBufVa != 0) {
        if (pstTask->bOutBufCached == 1)
            ZU_OS_DcacheFlush(pstTask->u64OutBufVa, pstTask->u32OutBufSize);
        ZU_OS_FlushMemory();
    }
    pstTask->u64OutBufVa = 0;
    pstTask->u32OutBufSize = 0;
    return ZU_OK;
}
