/**
 * Worker tasks of a recording: creation, deletion (the join), and the start and end of every run.
 */
#ifndef SCREENRECORD_TABLE_WORKER_TASKS_H
#define SCREENRECORD_TABLE_WORKER_TASKS_H

#include "table/recording_table.h"

/**
 * Creates a module's mutex and, unless `u32StackSize` is 0, its task.
 * @return ZU_OK; ZU_FAILURE (leaves nothing behind; does not touch an existing task);
 *     ZU_INVALID_ARGUMENT for NULL
 */
u32 _SCREENRECORD_CreateTask(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId, u32 u32StackSize,
                             ZU_OS_TaskEntry pfnEntry);

/**
 * Ends a module's worker and deletes its task and mutex, if they exist. Waits at most 5000 ms for a
 * running worker, and not for one that has not run yet. Retires a writer that closes its own slot
 * instead of waiting for it: the writer ends, and the slot's next control call, or
 * de-initialisation, reclaims it.
 * @return ZU_OK, ZU_INVALID_ARGUMENT for NULL
 */
u32 _SCREENRECORD_DeleteTask(SCREENRECORD_TaskCtrl_s* pstTask);

/** Joins the slot's retired writer, if any, and frees its stack. */
void _SCREENRECORD_ReclaimRetiredWriter(u32 u32SlotId);

/**
 * One run of a worker: owns the argument block and, from begin to end, the module's mutex.
 */
class WorkerRun {
public:
    /**
     * Begins a run and frees the argument block. If Cancelled(), the task was deleted before it
     * first ran: return at once; the deletion frees the block.
     */
    WorkerRun(void* pArg, SCREENRECORD_ZuModule_e eModule);
    /** Ends the run; logs the name of the task's function. */
    void End();

    bool Cancelled() const { return m_eState == E_SCREENRECORD_WORKER_CANCELLED; }
    bool ExitRequested() const { return m_pstTask->bTaskExit != 0 || GivenUp(); }
    /**
     * The deletion timed out: the record, its handles and its files now belong to another run.
     */
    bool GivenUp() const { return State() == E_SCREENRECORD_WORKER_GIVEN_UP; }
    u32 SlotId() const { return m_u32SlotId; }
    SCREENRECORD_TaskCtrl_s* Task() const { return m_pstTask; }

    /**
     * Enclose the calls with which a writer stops and closes its own slot. Keep the control lock
     * locked from the first to the second. In between, the deletion retires this run instead of
     * waiting for it.
     */
    void BeginClosingOwnSlot();
    void EndClosingOwnSlot();

private:
    SCREENRECORD_WorkerState_e State() const;

    const u32 m_u32SlotId;
    SCREENRECORD_TaskCtrl_s* const m_pstTask;
    /** the state that this run set last */
    SCREENRECORD_WorkerState_e m_eState = E_SCREENRECORD_WORKER_CANCELLED;
    /** this run's number in its record */
    u32 m_u32Number = 0;
    s32 m_s32HeldMutexId = SCREENRECORD_NO_ID;
};

#endif
