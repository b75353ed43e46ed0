#include "table/recording_table.h"

#include <cstdlib>

#include "modules/display_connection.h"
#include "table/worker_tasks.h"

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

void _SCREENRECORD_ResetTask(SCREENRECORD_TaskCtrl_s* pstTask, SCREENRECORD_ZuModule_e eModule)
{
    const u32 u32Handle = _SCREENRECORD_WithdrawHandle(pstTask);
    if (eModule == E_SCREENRECORD_MODULE_VCAP)
        _SCREENRECORD_ForgetCapture(u32Handle);
    static_cast<SCREENRECORD_TaskFields_s&>(*pstTask) = SCREENRECORD_TaskFields_s{};
    pstTask->eModule = eModule;
}

void _SCREENRECORD_ClearSrcInfo(SCREENRECORD_SrcInfo_s* pstSrcInfo)
{
    free(pstSrcInfo->pu8VideoSrcName);
    free(pstSrcInfo->pu8AudioSrcName);
    free(pstSrcInfo->pu8DstName);
    *pstSrcInfo = SCREENRECORD_SrcInfo_s{};
}

void _SCREENRECORD_ClearTable()
{
    for (SCREENRECORD_SlotCtrl_s& stSlot : _astSlotCtrl) {
        // Each record knows its module also before the slot's first open: a source that is configured without
        // one is then closed as what it is.
        for (u32 u32Module = 0; u32Module < E_SCREENRECORD_MODULE_MAX; u32Module++)
            _SCREENRECORD_ResetTask(&stSlot.astTaskCtrl[u32Module],
                                    static_cast<SCREENRECORD_ZuModule_e>(u32Module));
        _SCREENRECORD_ClearSrcInfo(&stSlot.stSrcInfo);
        stSlot.u32SlotId = 0;
        stSlot.u64CapBufTotalSize = 0;
        stSlot.u64CapFrameSize = 0;
        stSlot.u32MaxFrameNum = 0;
        stSlot.u64CapBufPhyAddr = 0;
        stSlot.u32CapPitch = 0;
        stSlot.s32CapBufFd = SCREENRECORD_NO_ID;
    }
}

bool _SCREENRECORD_CheckSlot(const u32* pu32Handle)
{
    if (pu32Handle == nullptr || *pu32Handle >= SCREENRECORD_SLOT_COUNT) {
        SR_HELPER_LOGE("INVALID Trancode Id!\n");
        return false;
    }
    if (_bModuleInited != 1) {
        SR_HELPER_LOGD("init module first!\n");
        return false;
    }
    _SCREENRECORD_ReclaimRetiredWriter(*pu32Handle);
    return true;
}

bool _SCREENRECORD_CheckIdleSlot(const u32* pu32Handle)
{
    if (!_SCREENRECORD_CheckSlot(pu32Handle))
        return false;
    for (const SCREENRECORD_TaskCtrl_s& stTask : _astSlotCtrl[*pu32Handle].astTaskCtrl) {
        if (stTask.bRunning == 1) {
            SR_HELPER_LOGD("Some modules are Transcoding now, please stop transcoding first! \n");
            return false;
        }
    }
    return true;
}

CallbackStay::CallbackStay(SCREENRECORD_ZuModule_e eModule, u32 u32Handle)
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

u32 _SCREENRECORD_Handle2SlotId(const CallbackStay& stay, u32* pu32SlotId)
{
    *pu32SlotId = stay.SlotId();
    if (stay.Found())
        return ZU_OK;
    SR_LOGE("Can't find Transcode SlotID!\n");
    return ZU_FAILURE;
}
