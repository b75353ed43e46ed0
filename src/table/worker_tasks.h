/** Worker tasks of a recording: their creation, their deletion (the join), and the frame that they all run
 * in. */
#ifndef SCREENRECORD_TABLE_WORKER_TASKS_H
#define SCREENRECORD_TABLE_WORKER_TASKS_H

#include "table/recording_table.h"

/**
 * Creates a module's mutex and, unless `u32StackSize` is 0, its task.
 * @return ZU_OK, ZU_FAILURE (nothing is left behind; an existing task is left alone), ZU_INVALID_ARGUMENT for
 * NULL
 */
u32 _SCREENRECORD_CreateTask(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId, u32 u32StackSize,
                             ZU_OS_TaskEntry pfnEntry);

/**
 * Ends a module's task and removes task and mutex, whichever exist. Waits up to 5000 ms for a worker that
 * runs, and not at all for one that has not run yet. The writer that closes its own slot is not waited for
 * but retired: it ends by itself, and the slot's next control call, or de-initialisation, reclaims it.
 * @return ZU_OK, ZU_INVALID_ARGUMENT for NULL
 */
u32 _SCREENRECORD_DeleteTask(SCREENRECORD_TaskCtrl_s* pstTask);

/** Joins the writer that closed its own slot, and frees what was its; nothing when there is none. */
void _SCREENRECORD_ReclaimRetiredWriter(u32 u32SlotId);

/** The common frame of every worker: the argument block, the mutex held for the whole run, the way out. */
class WorkerRun {
public:
    /**
     * Begins a run and frees the argument block. May() is false when the task was deleted before it first
     * ran: it must return at once, and the block is the deletion's to free.
     */
    WorkerRun(void* pArg, SCREENRECORD_ZuModule_e eModule);
    /** Ends the run, under the name of the task's function. */
    void End();

    bool May() const { return m_bMay; }
    bool ExitRequested() const { return m_pstTask->bTaskExit != 0 || Outlived(); }
    /** The deletion gave up waiting and went on: the record, its handles and files are another run's by now.
     */
    bool Outlived() const { return m_pstTask->u32Deletions != m_u32Deletions; }
    u32 SlotId() const { return m_u32SlotId; }
    SCREENRECORD_TaskCtrl_s* Task() const { return m_pstTask; }

    /** From here the deletion retires this worker instead of waiting for it. Under the control lock. */
    void BeginClosingOwnSlot();
    /** The record is another run's from here on. Under the same hold of the control lock. */
    void EndClosingOwnSlot();

private:
    u32 m_u32SlotId;
    SCREENRECORD_TaskCtrl_s* m_pstTask;
    u32 m_u32Deletions = 0; /**< when this run began */
    bool m_bMay = false;
    bool m_bRetired = false;
    bool m_bHoldsMutex = false;
    s32 m_s32MutexId = SCREENRECORD_NO_ID;
};

#endif
