/** The start and end of every run of a worker, and the join that waits for its end. */
#ifndef SCREENRECORD_TABLE_WORKER_RUN_H
#define SCREENRECORD_TABLE_WORKER_RUN_H

#include "table/recording_table.h"

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
    ~WorkerRun() { _pOfThisThread = nullptr; }
    WorkerRun(const WorkerRun&) = delete;
    WorkerRun& operator=(const WorkerRun&) = delete;
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
     * Retires this thread's run if it is a run of `pstTask`: its thread is deleting its own task.
     * @return true if it is
     */
    static bool RetireOwn(const SCREENRECORD_TaskCtrl_s* pstTask)
    {
        static_assert(_SCREENRECORD_IsWorkerChange(E_SCREENRECORD_WORKER_RUNNING,
                                                   E_SCREENRECORD_WORKER_RETIRED));
        if (_pOfThisThread == nullptr || _pOfThisThread->m_pstTask != pstTask ||
            _pOfThisThread->State() != E_SCREENRECORD_WORKER_RUNNING)
            return false;
        _pOfThisThread->m_eState = E_SCREENRECORD_WORKER_RETIRED;
        return true;
    }

private:
    /** Once the record starts its next worker, a run that was not retired counts as given up. */
    SCREENRECORD_WorkerState_e State() const
    {
        static_assert(_SCREENRECORD_IsWorkerChange(E_SCREENRECORD_WORKER_RUNNING,
                                                   E_SCREENRECORD_WORKER_GIVEN_UP));
        if (m_eState == E_SCREENRECORD_WORKER_CANCELLED ||
            m_eState == E_SCREENRECORD_WORKER_RETIRED ||
            m_pstTask->workerState.Number() == m_u32Number)
            return m_eState;
        return E_SCREENRECORD_WORKER_GIVEN_UP;
    }

    inline static thread_local constinit WorkerRun* _pOfThisThread = nullptr;

    const u32 m_u32SlotId;
    SCREENRECORD_TaskCtrl_s* const m_pstTask;
    /** the state that this run set last */
    SCREENRECORD_WorkerState_e m_eState = E_SCREENRECORD_WORKER_CANCELLED;
    /** this run's number in its record */
    u32 m_u32Number = 0;
    s32 m_s32HeldMutexId = SCREENRECORD_NO_ID;
};

/**
 * Joins a task through its mutex and frees its stack.
 * @param ps32PublishedMutexId the record's field with the mutex id, NULL if the id has left it
 * @param pGate the module's gate, if its callbacks use the mutex
 */
void _SCREENRECORD_JoinTask(s32 s32TaskId, void* pTaskStack, s32 s32MutexId,
                            CrossThread<s32>* ps32PublishedMutexId, CallbackGate* pGate);

#endif
