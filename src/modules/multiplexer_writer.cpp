#include "modules/multiplexer_writer.h"

#include <cstdlib>
#include <mutex>

#include <screenrecord/screenrecord.h>
#include <zu3/fs.h>
#include <zu3/tsmux.h>

#include "base/log.h"
#include "table/control_call.h"
#include "table/worker_run.h"

namespace {

enum {
    /** bytes of the batch buffer */
    BATCH_SIZE = 0x20000,
    /** greatest size of one copy, bytes; a fuller batch is written, so the next copy always fits */
    COPY_SIZE = 0x10000,
    WRITER_PASS_MS = 100,
};

/** Moves the multiplexed stream to the file and enforces the time limit. */
class Writer {
public:
    Writer(WorkerRun& run, u8* pu8Batch) : m_run(run), m_pu8Batch(pu8Batch)
    {
        if (_u32RecordTime != 0)
            StartTimer();
    }

    /**
     * Copies and writes until the deletion requests the end, a copy fails, or the time limit closes
     * the slot.
     */
    void Run()
    {
        while (!m_run.GivenUp() && CopyStream() && !m_run.GivenUp()) {
            // Checked after the copy: the deletion requests the end once the multiplexer has
            // stopped, so this copy or the next one has the last bytes. Output beyond one copy is
            // lost then.
            const bool bLast = m_run.ExitRequested();
            if (m_u32Filled > COPY_SIZE || bLast)
                WriteBatch();
            if (bLast)
                return;
            ZU_OS_DelayTask(WRITER_PASS_MS);
            if (LimitPassed() && TryCloseOwnSlot())
                return;
        }
    }

private:
    bool CopyStream()
    {
        u32 u32Copied = 0;
        const u32 u32Result = ZU_TSMUX_CopyOutputStream(
            m_run.Task()->u32Handle, m_pu8Batch + m_u32Filled, COPY_SIZE, &u32Copied);
        if (u32Result != ZU_OK) {
            SR_HELPER_LOGE("Error 0x%x: failed to ZU_TSMUX_CopyOutputStream()\n", u32Result);
            return false;
        }
        // Clamp a count beyond the request: the next copy would overflow the batch buffer.
        m_u32Filled += u32Copied <= COPY_SIZE ? u32Copied : static_cast<u32>(COPY_SIZE);
        return true;
    }

    /**
     * Ignores the result: a full disk costs the rest of this file, not the recording of the other
     * slot.
     */
    void WriteBatch()
    {
        ZU_FS_Fwrite(m_pu8Batch, m_u32Filled, 1, m_run.Task()->u32OutFile);
        m_u32Filled = 0;
    }

    void StartTimer() { m_bTimerRuns = ZU_OS_GetSystemTime(&m_u32StartMs) == ZU_OK; }

    bool LimitPassed()
    {
        const u32 u32Limit = _u32RecordTime;
        if (u32Limit == 0)
            return false;
        if (!m_bTimerRuns)
            // the other slot set the limit after this writer started
            StartTimer();
        u32 u32ElapsedMs = 0;
        return m_bTimerRuns && ZU_OS_TimerDiffTimeFromNow(m_u32StartMs, &u32ElapsedMs) == ZU_OK &&
               u32ElapsedMs / 1000 > u32Limit;
    }

    /**
     * Stops and closes the slot with the library's exported calls, which retire this run instead of
     * waiting for it. After true the record belongs to another run, and this one must end. Returns
     * false, without a change, while a client is in a control call.
     */
    bool TryCloseOwnSlot()
    {
        const std::unique_lock<std::recursive_mutex> lock(_controlMutex, std::try_to_lock);
        if (!lock.owns_lock())
            return false;
        if (m_run.GivenUp())
            return true;
        SR_HELPER_LOGD("%s() Out of limitsec stop record _u32RecordTime = %ld\n", LogAs::Name(),
                       static_cast<long>(_u32RecordTime));
        u32 u32Handle = m_run.SlotId();
        if (SCREENRECORD_Stop(&u32Handle) == 0)
            SR_HELPER_LOGE("SCREENRECORD_Stop Fail\n");
        if (SCREENRECORD_Close(&u32Handle) == 0)
            SR_HELPER_LOGE("SCREENRECORD_Close Fail\n");
        return true;
    }

    WorkerRun& m_run;
    u8* const m_pu8Batch;
    u32 m_u32Filled = 0;
    bool m_bTimerRuns = false;
    u32 m_u32StartMs = 0;
};

} // namespace

void _SCREENRECORD_TsmuxTaskHandler(void* pArg)
{
    const LogAs as(__func__);
    WorkerRun run(pArg, E_SCREENRECORD_MODULE_TSMUX);
    if (run.Cancelled())
        return;
    u8* pu8Batch = static_cast<u8*>(malloc(BATCH_SIZE));
    if (pu8Batch == nullptr)
        SR_LOGE("Error: failed to malloc(%d) for batch write\n", BATCH_SIZE);
    else
        Writer(run, pu8Batch).Run();
    free(pu8Batch);
    run.End();
}
