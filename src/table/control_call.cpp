#include "table/control_call.h"

#include "base/log.h"
#include "table/recording_table.h"
#include "table/worker_run.h"

void _SCREENRECORD_ReclaimRetiredWriter(u32 u32SlotId)
{
    SCREENRECORD_TaskCtrl_s* pstTsmux =
        _SCREENRECORD_TaskOf(u32SlotId, E_SCREENRECORD_MODULE_TSMUX);
    const SCREENRECORD_RetiredWriter_s stRetired = pstTsmux->stRetiredWriter;
    pstTsmux->stRetiredWriter = SCREENRECORD_RetiredWriter_s{};
    // Retiring removed its mutex from the record, and no callback uses a writer's mutex.
    if (stRetired.s32TaskId != SCREENRECORD_NO_ID)
        _SCREENRECORD_JoinTask(stRetired.s32TaskId, stRetired.pTaskStack, stRetired.s32MutexId,
                               nullptr, nullptr);
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
