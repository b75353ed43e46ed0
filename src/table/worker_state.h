/** The states of a module's worker and their transitions. */
#ifndef SCREENRECORD_TABLE_WORKER_STATE_H
#define SCREENRECORD_TABLE_WORKER_STATE_H

#include <zu3/types.h>

#include "base/cross_thread.h"

enum SCREENRECORD_WorkerState_e : u32 {
    E_SCREENRECORD_WORKER_NONE,
    /** not run yet; the creator still owns its argument block */
    E_SCREENRECORD_WORKER_CREATED,
    /** deleted before it ran; does nothing if it runs now */
    E_SCREENRECORD_WORKER_CANCELLED,
    /** runs, and is obtaining its mutex */
    E_SCREENRECORD_WORKER_ENTERED,
    /** runs, with its mutex unless that timed out */
    E_SCREENRECORD_WORKER_RUNNING,
    /** has left its loop; not deleted yet */
    E_SCREENRECORD_WORKER_ENDED,
    /* of a worker whose record belongs to the next one */
    /** deleted itself at the time limit: it ends, and a later control call joins it */
    E_SCREENRECORD_WORKER_RETIRED,
    /** its deletion timed out: it must not touch the record any more */
    E_SCREENRECORD_WORKER_GIVEN_UP,
};

struct SCREENRECORD_WorkerChange_s {
    SCREENRECORD_WorkerState_e eFrom;
    SCREENRECORD_WorkerState_e eTo;
};

/**
 * All transitions of a worker. A deletion is allowed in any state; the record then starts its next
 * worker with NONE.
 */
inline constexpr SCREENRECORD_WorkerChange_s _astWorkerChanges[] = {
    /* creation */
    {E_SCREENRECORD_WORKER_NONE, E_SCREENRECORD_WORKER_CREATED},
    {E_SCREENRECORD_WORKER_ENDED, E_SCREENRECORD_WORKER_CREATED},
    /* deletion of a task that has not run */
    {E_SCREENRECORD_WORKER_CREATED, E_SCREENRECORD_WORKER_CANCELLED},
    /* the task's function; also if called without a creation */
    {E_SCREENRECORD_WORKER_CREATED, E_SCREENRECORD_WORKER_ENTERED},
    {E_SCREENRECORD_WORKER_NONE, E_SCREENRECORD_WORKER_ENTERED},
    {E_SCREENRECORD_WORKER_ENDED, E_SCREENRECORD_WORKER_ENTERED},
    {E_SCREENRECORD_WORKER_ENTERED, E_SCREENRECORD_WORKER_RUNNING},
    {E_SCREENRECORD_WORKER_RUNNING, E_SCREENRECORD_WORKER_ENDED},
    {E_SCREENRECORD_WORKER_RUNNING, E_SCREENRECORD_WORKER_GIVEN_UP},
    {E_SCREENRECORD_WORKER_RUNNING, E_SCREENRECORD_WORKER_RETIRED},
};

constexpr bool _SCREENRECORD_IsWorkerChange(SCREENRECORD_WorkerState_e eFrom,
                                            SCREENRECORD_WorkerState_e eTo)
{
    for (const SCREENRECORD_WorkerChange_s& stChange : _astWorkerChanges)
        if (stChange.eFrom == eFrom && stChange.eTo == eTo)
            return true;
    return false;
}

/**
 * State and number of a record's current worker. The number counts the record's deletions. Both
 * change in one step, so a worker that was given up never mistakes the next worker's state for its
 * own.
 */
class WorkerState {
public:
    SCREENRECORD_WorkerState_e Get() const
    {
        return static_cast<SCREENRECORD_WorkerState_e>(m_u32Word & STATE_MASK);
    }
    u32 Number() const { return m_u32Word >> STATE_BITS; }

    /**
     * Changes the state of worker `u32Number`. False, and no change, if the record has another
     * worker or state. A transition that is not in the table does not compile.
     */
    template <SCREENRECORD_WorkerState_e FROM, SCREENRECORD_WorkerState_e TO>
    bool Change(u32 u32Number)
    {
        static_assert(_SCREENRECORD_IsWorkerChange(FROM, TO));
        if (!m_u32Word.Replace(Word(u32Number, FROM), Word(u32Number, TO)))
            return false;
        m_u32Word.WakeWaiters();
        return true;
    }
    /** Blocks until the worker has obtained its mutex or failed to. */
    void AwaitMutex() const
    {
        const u32 u32Word = m_u32Word;
        if ((u32Word & STATE_MASK) == E_SCREENRECORD_WORKER_ENTERED)
            m_u32Word.AwaitChangeFrom(u32Word);
    }
    /** Starts the record's next worker, from any state of the current one. */
    void Delete() { m_u32Word = Word(Number() + 1, E_SCREENRECORD_WORKER_NONE); }

private:
    static constexpr u32 STATE_BITS = 4;
    static constexpr u32 STATE_MASK = (1u << STATE_BITS) - 1;
    static constexpr u32 Word(u32 u32Number, SCREENRECORD_WorkerState_e eState)
    {
        return u32Number << STATE_BITS | eState;
    }

    CrossThread<u32> m_u32Word{E_SCREENRECORD_WORKER_NONE};
};

#endif
