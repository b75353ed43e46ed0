#include "table/worker_tasks.h"

#include <cstdio>
#include <cstdlib>

#include "base/log.h"
#include "table/worker_run.h"

namespace {

void FreeTaskArg(SCREENRECORD_TaskCtrl_s* pstTask)
{
    free(pstTask->pu32TaskArg);
    pstTask->pu32TaskArg = nullptr;
}

/**
 * Decides the race between a deletion and the first steps of its task. Cancels a task that has not
 * run yet, so it returns at once if it still runs. Waits until a running task has its mutex:
 * otherwise the deletion could obtain the mutex first, and both would wait for each other.
 * @return true if the task was cancelled
 */
bool CancelUnlessEntered(WorkerState& state)
{
    if (state.Change<E_SCREENRECORD_WORKER_CREATED, E_SCREENRECORD_WORKER_CANCELLED>(
            state.Number()))
        return true;
    state.AwaitMutex();
    return false;
}

void RetireWriter(SCREENRECORD_TaskCtrl_s* pstTask)
{
    SCREENRECORD_RetiredWriter_s& stRetired = pstTask->stRetiredWriter;
    stRetired.s32TaskId = pstTask->s32TaskId.Exchange(SCREENRECORD_NO_ID);
    stRetired.s32MutexId = pstTask->s32MutexId.Exchange(SCREENRECORD_NO_ID);
    stRetired.pTaskStack = pstTask->pTaskStack;
    pstTask->pTaskStack = nullptr;
}

/**
 * Creates the mutex of a record. Callbacks that entered before it existed have left on return.
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

/**
 * Creates the task of a record; its stack must be allocated. On a failure the caller deletes the
 * task, which frees the argument block once no task can use it.
 */
bool StartTask(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId, u32 u32StackSize,
               ZU_OS_TaskEntry pfnEntry)
{
    char acName[20];
    snprintf(acName, sizeof(acName), "Tscode:%d", static_cast<int>(pstTask->eModule));
    u32* pu32Arg = static_cast<u32*>(malloc(sizeof(u32)));
    if (pu32Arg == nullptr)
        return false;
    *pu32Arg = u32SlotId;
    pstTask->pu32TaskArg = pu32Arg;
    // before the task exists, because it may run at once
    WorkerState& state = pstTask->workerState;
    const u32 u32Number = state.Number();
    if (!state.Change<E_SCREENRECORD_WORKER_NONE, E_SCREENRECORD_WORKER_CREATED>(u32Number))
        state.Change<E_SCREENRECORD_WORKER_ENDED, E_SCREENRECORD_WORKER_CREATED>(u32Number);

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
    if (WorkerRun::RetireOwn(pstTask)) {
        RetireWriter(pstTask);
    } else {
        const bool bCancelled = CancelUnlessEntered(pstTask->workerState);
        void* pTaskStack = pstTask->pTaskStack;
        pstTask->pTaskStack = nullptr;
        _SCREENRECORD_JoinTask(pstTask->s32TaskId.Exchange(SCREENRECORD_NO_ID), pTaskStack,
                               pstTask->s32MutexId, &pstTask->s32MutexId, &pstTask->callbackGate);
        if (bCancelled)
            // the task, which would have freed it, never ran
            FreeTaskArg(pstTask);
    }
    pstTask->workerState.Delete();
    pstTask->bTaskExit = 0;
    return ZU_OK;
}
