#include "table/worker_run.h"

#include <cstdlib>

#include "base/log.h"

WorkerRun::WorkerRun(void* pArg, SCREENRECORD_ZuModule_e eModule)
    : m_u32SlotId(*static_cast<u32*>(pArg)), m_pstTask(_SCREENRECORD_TaskOf(m_u32SlotId, eModule))
{
    WorkerState& state = m_pstTask->workerState;
    const u32 u32Number = state.Number();
    if (state.Change<E_SCREENRECORD_WORKER_CREATED, E_SCREENRECORD_WORKER_ENTERED>(u32Number))
        // the run owns the block from here on
        m_pstTask->pu32TaskArg = nullptr;
    else if (!state.Change<E_SCREENRECORD_WORKER_NONE, E_SCREENRECORD_WORKER_ENTERED>(u32Number) &&
             !state.Change<E_SCREENRECORD_WORKER_ENDED, E_SCREENRECORD_WORKER_ENTERED>(u32Number))
        return;
    m_u32Number = u32Number;
    free(pArg);
    // a deletion waits until the state has left ENTERED
    const s32 s32MutexId = m_pstTask->s32MutexId;
    if (s32MutexId != SCREENRECORD_NO_ID &&
        ZU_OS_ObtainMutex(s32MutexId, SCREENRECORD_LOCK_TIMEOUT_MS) == ZU_OK)
        m_s32HeldMutexId = s32MutexId;
    m_eState = E_SCREENRECORD_WORKER_RUNNING;
    _pOfThisThread = this;
    state.Change<E_SCREENRECORD_WORKER_ENTERED, E_SCREENRECORD_WORKER_RUNNING>(m_u32Number);
}

void WorkerRun::End()
{
    SR_HELPER_LOGD("Exit %s() \n", LogAs::Name());
    const bool bRetired = State() == E_SCREENRECORD_WORKER_RETIRED;
    m_pstTask->workerState.Change<E_SCREENRECORD_WORKER_RUNNING, E_SCREENRECORD_WORKER_ENDED>(
        m_u32Number);
    // A deletion that timed out has deleted the mutex and withdrawn its id from the record.
    if (m_s32HeldMutexId != SCREENRECORD_NO_ID &&
        (bRetired || (!GivenUp() && m_pstTask->s32MutexId == m_s32HeldMutexId)))
        ZU_OS_ReleaseMutex(m_s32HeldMutexId);
}

void _SCREENRECORD_JoinTask(s32 s32TaskId, void* pTaskStack, s32 s32MutexId,
                            CrossThread<s32>* ps32PublishedMutexId, CallbackGate* pGate)
{
    const bool bHasMutex = s32MutexId != SCREENRECORD_NO_ID;
    const bool bObtained =
        bHasMutex && ZU_OS_ObtainMutex(s32MutexId, SCREENRECORD_LOCK_TIMEOUT_MS) == ZU_OK;
    if (s32TaskId >= 1)
        ZU_OS_DeleteTask(s32TaskId);
    free(pTaskStack);
    if (ps32PublishedMutexId != nullptr)
        *ps32PublishedMutexId = SCREENRECORD_NO_ID;
    if (bObtained)
        ZU_OS_ReleaseMutex(s32MutexId);
    if (!bHasMutex)
        return;
    // A callback that has read the id may own the mutex or wait for it.
    if (pGate != nullptr)
        pGate->Drain();
    ZU_OS_DeleteMutex(s32MutexId);
}
