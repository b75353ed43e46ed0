/**
 * Worker tasks of a recording: their creation, their deletion (the join), and the frame that they
 * all run in.
 */
#ifndef SCREENRECORD_TABLE_WORKER_TASKS_H
#define SCREENRECORD_TABLE_WORKER_TASKS_H

#include "table/recording_table.h"

/**
 * Creates a module's mutex and, unless `u32StackSize` is 0, its task.
 * @return ZU_OK, ZU_FAILURE (nothing is left behind; an existing task is left alone),
 * ZU_INVALID_ARGUMENT for NULL
 */
u32 _SCREENRECORD_CreateTask(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId, u32 u32StackSize,
                             ZU_OS_TaskEntry pfnEntry);

/**
 * Ends a module's task and removes its task and mutex, if they exist. Waits up to 5000 ms for a
 * worker that runs, and not at all for one that has not run yet. The writer that closes its own
 * slot is not waited for but retired: it ends by itself, and the slot's next control call, or
 * de-initialisation, reclaims it.
 * @return ZU_OK, ZU_INVALID_ARGUMENT for NULL
 */
u32 _SCREENRECORD_DeleteTask(SCREENRECORD_TaskCtrl_s* pstTask);

/** Joins the writer that closed its own slot, and frees its stack; nothing when there is none. */
void _SCREENRECORD_ReclaimRetiredWriter(u32 u32SlotId);

/**
 * The common frame of every worker: the argument block, the mutex held for the whole run, the way
 * out.
 */
class WorkerRun {
public:
    /**
     * Begins a run and frees the argument block. A run that was cancelled, since its task was
     * deleted before it first ran, must return at once: the block is the deletion's to free.
     */
    WorkerRun(void* pArg, SCREENRECORD_ZuModule_e eModule);
    /** Ends the run; its log line bears the name of the task's function. */
    void End();

    bool Cancelled() const { return m_eState == E_SCREENRECORD_WORKER_CANCELLED; }
    bool ExitRequested() const { return m_pstTask->bTaskExit != 0 || GivenUp(); }
    /**
     * The deletion waited in vain and went on: the record, its handles and files are another run's
     * by now.
     */
    bool GivenUp() const { return State() == E_SCREENRECORD_WORKER_GIVEN_UP; }
    u32 SlotId() const { return m_u32SlotId; }
    SCREENRECORD_TaskCtrl_s* Task() const { return m_pstTask; }

    /**
     * Encloses the calls by which a writer stops and closes its own slot, under one hold of the
     * control lock: between the two, the deletion retires this run instead of waiting for it.
     */
    void BeginClosingOwnSlot();
    void EndClosingOwnSlot();

private:
    SCREENRECORD_WorkerState_e State() const;

    const u32 m_u32SlotId;
    SCREENRECORD_TaskCtrl_s* const m_pstTask;
    /** as this run last changed it */
    SCREENRECORD_WorkerState_e m_eState = E_SCREENRECORD_WORKER_CANCELLED;
    /** of this run in its record */
    u32 m_u32Number = 0;
    s32 m_s32HeldMutexId = SCREENRECORD_NO_ID;
};

#endif
