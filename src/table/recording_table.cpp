#include "table/recording_table.h"

#include <cstdlib>

#include "base/log.h"

SCREENRECORD_SlotCtrl_s _astSlotCtrl[SCREENRECORD_SLOT_COUNT];
SCREENRECORD_ModuleCaps_s _stModuleCaps;
u8 _bModuleInited;
u32 _u32ModuleInitMask;
u32 _u32ModuleDeinitMask;
u8 _bSysInited;
CrossThread<u32> _u32RecordTime;

SCREENRECORD_SlotCtrl_s* _SCREENRECORD_SlotOf(const SCREENRECORD_TaskCtrl_s* pstTask)
{
    for (SCREENRECORD_SlotCtrl_s& stSlot : _astSlotCtrl)
        for (const SCREENRECORD_TaskCtrl_s& stTask : stSlot.astTaskCtrl)
            if (&stTask == pstTask)
                return &stSlot;
    return nullptr;
}

u32 _SCREENRECORD_WithdrawHandle(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const u32 u32Handle = pstTask->u32Handle.Exchange(0);
    pstTask->callbackGate.Drain();
    return u32Handle;
}

void _SCREENRECORD_ClearTask(SCREENRECORD_TaskCtrl_s* pstTask, SCREENRECORD_ZuModule_e eModule)
{
    static_cast<SCREENRECORD_TaskFields_s&>(*pstTask) = SCREENRECORD_TaskFields_s{};
    pstTask->eModule = eModule;
    pstTask->workerState.Delete();
}

void _SCREENRECORD_ClearSrcInfo(SCREENRECORD_SrcInfo_s* pstSrcInfo)
{
    free(pstSrcInfo->pu8VideoSrcName);
    free(pstSrcInfo->pu8AudioSrcName);
    free(pstSrcInfo->pu8DstName);
    *pstSrcInfo = SCREENRECORD_SrcInfo_s{};
}

CallbackGuard::CallbackGuard(SCREENRECORD_ZuModule_e eModule, u32 u32Handle)
{
    for (u32 u32SlotId = 0; u32Handle != 0 && u32SlotId < SCREENRECORD_SLOT_COUNT; u32SlotId++) {
        SCREENRECORD_TaskCtrl_s* pstTask = _SCREENRECORD_TaskOf(u32SlotId, eModule);
        m_pass.emplace(pstTask->callbackGate);
        if (pstTask->u32Handle == u32Handle) {
            m_u32SlotId = u32SlotId;
            return;
        }
        m_pass.reset();
    }
}

u32 _SCREENRECORD_Handle2SlotId(const CallbackGuard& guard, u32* pu32SlotId)
{
    *pu32SlotId = guard.SlotId();
    if (guard.Found())
        return ZU_OK;
    SR_LOGE("Can't find Transcode SlotID!\n");
    return ZU_FAILURE;
}
