/** The state of a module's worker, and the changes that it allows. */
#ifndef SCREENRECORD_TABLE_WORKER_STATE_H
#define SCREENRECORD_TABLE_WORKER_STATE_H

#include <zu3/types.h>

#include "base/cross_thread.h"

enum SCREENRECORD_WorkerState_e : u32 {
    E_SCREENRECORD_WORKER_NONE,
    /** not run yet: its argument block is still the creator's to free */
    E_SCREENRECORD_WORKER_CREATED,
    /** is being deleted before it ran, and does nothing should it run now */
    E_SCREENRECORD_WORKER_CANCELLED,
    /** runs, and is about to obtain its mutex */
    E_SCREENRECORD_WORKER_ENTERED,
    /** has its mutex, if it obtained it */
    E_SCREENRECORD_WORKER_RUNNING,
    /** has left its loop by itself; not deleted yet */
    E_SCREENRECORD_WORKER_ENDED,
    /** a writer past its time limit, which stops and closes its own slot */
    E_SCREENRECORD_WORKER_CLOSING,
    /* of a worker whose record has gone on to the next one */
    /** its own close deleted it: it ends, and a later control call joins it */
    E_SCREENRECORD_WORKER_RETIRED,
    /** its deletion waited in vain: it touches nothing more of the record */
    E_SCREENRECORD_WORKER_GIVEN_UP,
};

struct SCREENRECORD_WorkerChange_s {
    SCREENRECORD_WorkerState_e eFrom;
    SCREENRECORD_WorkerState_e eTo;
};

/**
 * All changes of a worker's state. A deletion ends any state: the record has NONE and its next
 * worker then.
 */
inline constexpr SCREENRECORD_WorkerChange_s _astWorkerChanges[] = {
    /* creation */
    {E_SCREENRECORD_WORKER_NONE, E_SCREENRECORD_WORKER_CREATED},
    {E_SCREENRECORD_WORKER_ENDED, E_SCREENRECORD_WORKER_CREATED},
    /* deletion of a task that has not run */
    {E_SCREENRECORD_WORKER_CREATED, E_SCREENRECORD_WORKER_CANCELLED},
    /* the task's function; also called by itself, without a creation */
    {E_SCREENRECORD_WORKER_CREATED, E_SCREENRECORD_WORKER_ENTERED},
    {E_SCREENRECORD_WORKER_NONE, E_SCREENRECORD_WORKER_ENTERED},
    {E_SCREENRECORD_WORKER_ENDED, E_SCREENRECORD_WORKER_ENTERED},
    {E_SCREENRECORD_WORKER_ENTERED, E_SCREENRECORD_WORKER_RUNNING},
    {E_SCREENRECORD_WORKER_RUNNING, E_SCREENRECORD_WORKER_ENDED},
    {E_SCREENRECORD_WORKER_RUNNING, E_SCREENRECORD_WORKER_GIVEN_UP},
    /* the writer at its time limit; RUNNING again if its close found no task to delete */
    {E_SCREENRECORD_WORKER_RUNNING, E_SCREENRECORD_WORKER_CLOSING},
    {E_SCREENRECORD_WORKER_CLOSING, E_SCREENRECORD_WORKER_RUNNING},
    {E_SCREENRECORD_WORKER_CLOSING, E_SCREENRECORD_WORKER_RETIRED},
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
 * The state of a record's current worker, and its number: the deletions that the record has seen.
 * Both change in one step, so a worker that was given up never meets the next one's state as its
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
     * Changes the state of worker `u32Number`. False, and nothing changed, if the record's worker
     * or its state is another. A change that the table does not have does not compile.
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
    /** Blocks while the worker is about to obtain its mutex. */
    void AwaitMutex() const
    {
        const u32 u32Word = m_u32Word;
        if ((u32Word & STATE_MASK) == E_SCREENRECORD_WORKER_ENTERED)
            m_u32Word.AwaitChangeFrom(u32Word);
    }
    /** Ends the current worker's time in the record, in any state. */
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
