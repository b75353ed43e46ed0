#include "table/worker_tasks.h"

#include <cstdio>
#include <cstdlib>

#include "base/log.h"

namespace {

/** A writer that closed its own slot, until it is joined. A slot has one at most: it is reclaimed before a
 * new one. */
struct RetiredWriter {
    s32 s32TaskId = SCREENRECORD_NO_ID;
    s32 s32MutexId = SCREENRECORD_NO_ID;
    void* pTaskStack = nullptr;
};
RetiredWriter _astRetiredWriter[SCREENRECORD_SLOT_COUNT];

/** The record of the writer that is closing its own slot at this moment; under the control lock. */
SCREENRECORD_TaskCtrl_s* _pstClosingWriter;

void FreeTaskArg(SCREENRECORD_TaskCtrl_s* pstTask)
{
    free(pstTask->pu32TaskArg);
    pstTask->pu32TaskArg = nullptr;
}

/**
 * Settles whether the task's function has begun. A task that has not run yet is cancelled, so that it leaves
 * at once should it still get to run; one that has begun is given the moment that it needs to take its mutex,
 * since otherwise its deleter could take the mutex first and both would wait for the other.
 * @return true when the task was cancelled
 */
bool CancelUnlessBegun(SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (pstTask->eTaskPhase.Replace(E_SCREENRECORD_TASK_CREATED, E_SCREENRECORD_TASK_CANCELLED))
        return true;
    pstTask->eTaskPhase.AwaitChangeFrom(E_SCREENRECORD_TASK_ENTERED);
    return false;
}

/** Joins a task through its mutex and frees its stack. `pGate`: of a module whose callbacks use the mutex. */
void JoinTask(s32 s32TaskId, void* pTaskStack, s32 s32MutexId, CrossThread<s32>* ps32PublishedMutexId,
              CallbackGate* pGate)
{
    const bool bHasMutex = s32MutexId != SCREENRECORD_NO_ID;
    const bool bObtained = bHasMutex && ZU_OS_ObtainMutex(s32MutexId, SCREENRECORD_LOCK_TIMEOUT_MS) == ZU_OK;
    if (s32TaskId >= 1)
        ZU_OS_DeleteTask(s32TaskId);
    free(pTaskStack);
    if (ps32PublishedMutexId != nullptr)
        *ps32PublishedMutexId = SCREENRECORD_NO_ID;
    if (bObtained)
        ZU_OS_ReleaseMutex(s32MutexId);
    if (!bHasMutex)
        return;
    // Who read the id before it was withdrawn may hold the mutex or wait for it; it must not be deleted under
    // them.
    if (pGate != nullptr)
        pGate->Drain();
    ZU_OS_DeleteMutex(s32MutexId);
}

void RetireWriter(SCREENRECORD_TaskCtrl_s* pstTask)
{
    RetiredWriter& stRetired = _astRetiredWriter[_SCREENRECORD_SlotOf(pstTask)->u32SlotId];
    stRetired.s32TaskId = pstTask->s32TaskId.Exchange(SCREENRECORD_NO_ID);
    stRetired.s32MutexId = pstTask->s32MutexId.Exchange(SCREENRECORD_NO_ID);
    stRetired.pTaskStack = pstTask->pTaskStack;
    pstTask->pTaskStack = nullptr;
    pstTask->eTaskPhase = E_SCREENRECORD_TASK_NONE;
}

/** Creates the mutex of a record. The callbacks that entered before it existed have left when this returns.
 */
bool CreateModuleMutex(SCREENRECORD_TaskCtrl_s* pstTask)
{
    char acName[20];
    snprintf(acName, sizeof(acName), "Tscode: %d", static_cast<int>(pstTask->eModule));
    const ZU_OS_MutexAttr_t stAttr = {.pName = acName, .u32Reserved = 0};
    if (ZU_OS_CreateMutex(&stAttr, pstTask->s32MutexId.OutputArgument()) != ZU_OK)
        return false;
    pstTask->callbackGate.Drain();
    return true;
}

/** Creates the task of a record whose stack is allocated. What a failure leaves is the deletion's to remove:
 * the argument block stays until no task can have it. */
bool StartTask(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId, u32 u32StackSize, ZU_OS_TaskEntry pfnEntry)
{
    char acName[20];
    snprintf(acName, sizeof(acName), "Tscode:%d", static_cast<int>(pstTask->eModule));
    u32* pu32Arg = static_cast<u32*>(malloc(sizeof(u32)));
    if (pu32Arg == nullptr)
        return false;
    *pu32Arg = u32SlotId;
    pstTask->pu32TaskArg = pu32Arg;
    pstTask->eTaskPhase = E_SCREENRECORD_TASK_CREATED; // before the task exists: it may run at once

    const ZU_OS_TaskAttr_t stAttr = {.pfnEntry = pfnEntry,
                                     .pArg = pu32Arg,
                                     .u32Priority = 4,
                                     .bAutoStart = 1,
                                     .au8Reserved = {},
                                     .pStack = pstTask->pTaskStack,
                                     .u32StackSize = u32StackSize,
                                     .pName = acName};
    return ZU_OS_CreateTask(&stAttr, pstTask->s32TaskId.OutputArgument()) == ZU_OK;
}

} // namespace

u32 _SCREENRECORD_CreateTask(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId, u32 u32StackSize,
                             ZU_OS_TaskEntry pfnEntry)
{
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    if (pstTask->s32TaskId >= 1) {
        SR_LOGE("Task has already running!!!\n");
        return ZU_FAILURE;
    }
    if (!CreateModuleMutex(pstTask)) {
        SR_LOGE("Fail to create Trancode mutex\n");
        _SCREENRECORD_DeleteTask(pstTask);
        return ZU_FAILURE;
    }
    pstTask->bTaskExit = 0;
    if (u32StackSize == 0)
        return ZU_OK;

    pstTask->pTaskStack = malloc(u32StackSize);
    if (pstTask->pTaskStack == nullptr) {
        SR_LOGE("Failed to malloc for VENC Get Source Tack Stack!\n");
        _SCREENRECORD_DeleteTask(pstTask);
        return ZU_FAILURE;
    }
    if (!StartTask(pstTask, u32SlotId, u32StackSize, pfnEntry)) {
        SR_LOGE("Failed to ZU_OS_CreateTask(...)!\n");
        _SCREENRECORD_DeleteTask(pstTask);
        return ZU_FAILURE;
    }
    return ZU_OK;
}

u32 _SCREENRECORD_DeleteTask(SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    pstTask->bTaskExit = 1;
    if (pstTask == _pstClosingWriter) {
        RetireWriter(pstTask);
    } else {
        const bool bCancelled = CancelUnlessBegun(pstTask);
        void* pTaskStack = pstTask->pTaskStack;
        pstTask->pTaskStack = nullptr;
        JoinTask(pstTask->s32TaskId.Exchange(SCREENRECORD_NO_ID), pTaskStack, pstTask->s32MutexId,
                 &pstTask->s32MutexId, &pstTask->callbackGate);
        if (bCancelled)
            FreeTaskArg(pstTask); // the task that would have freed it has never run
        pstTask->eTaskPhase = E_SCREENRECORD_TASK_NONE;
    }
    pstTask->u32Deletions = pstTask->u32Deletions + 1;
    pstTask->bTaskExit = 0;
    return ZU_OK;
}

void _SCREENRECORD_ReclaimRetiredWriter(u32 u32SlotId)
{
    const RetiredWriter stRetired = _astRetiredWriter[u32SlotId];
    _astRetiredWriter[u32SlotId] = RetiredWriter{};
    // Its mutex went out of the record when it retired, and no callback takes a writer's.
    if (stRetired.s32TaskId != SCREENRECORD_NO_ID)
        JoinTask(stRetired.s32TaskId, stRetired.pTaskStack, stRetired.s32MutexId, nullptr, nullptr);
}

WorkerRun::WorkerRun(void* pArg, SCREENRECORD_ZuModule_e eModule)
    : m_u32SlotId(*static_cast<u32*>(pArg)), m_pstTask(_SCREENRECORD_TaskOf(m_u32SlotId, eModule))
{
    CrossThread<u32>& eTaskPhase = m_pstTask->eTaskPhase;
    if (eTaskPhase.Replace(E_SCREENRECORD_TASK_CREATED, E_SCREENRECORD_TASK_ENTERED))
        m_pstTask->pu32TaskArg = nullptr; // the block is this run's from here on
    else if (eTaskPhase == E_SCREENRECORD_TASK_CANCELLED)
        return;
    else
        eTaskPhase = E_SCREENRECORD_TASK_ENTERED; // called by itself, without a creation
    m_bMay = true;
    m_u32Deletions = m_pstTask->u32Deletions; // a deletion waits until the phase has left ENTERED
    free(pArg);
    m_s32MutexId = m_pstTask->s32MutexId;
    m_bHoldsMutex = m_s32MutexId != SCREENRECORD_NO_ID &&
                    ZU_OS_ObtainMutex(m_s32MutexId, SCREENRECORD_LOCK_TIMEOUT_MS) == ZU_OK;
    m_pstTask->eTaskPhase = E_SCREENRECORD_TASK_RUNNING;
    m_pstTask->eTaskPhase.WakeWaiters();
}

void WorkerRun::End()
{
    SR_HELPER_LOGD("Exit %s() \n", LogAs::Name());
    // A deleter that gave up waiting has removed the mutex and taken its id out of the record.
    if (m_bHoldsMutex && (m_bRetired || (!Outlived() && m_pstTask->s32MutexId == m_s32MutexId)))
        ZU_OS_ReleaseMutex(m_s32MutexId);
}

void WorkerRun::BeginClosingOwnSlot()
{
    _pstClosingWriter = m_pstTask;
}

void WorkerRun::EndClosingOwnSlot()
{
    _pstClosingWriter = nullptr;
    m_bRetired = true;
}
