#include <utils/Timers.h>
#include <zu3/fs.h>

#include "table/worker_tasks.h"

namespace {

enum { READER_PASS_MS = 28 };

enum class Feeding { DONE, ENCODER_BUSY, END_OF_FILE };

/** Fills one encoder input buffer from the source file; a close of the encoder waits until it is done. */
Feeding FillInputBuffer(WorkerRun& run)
{
    SCREENRECORD_TaskCtrl_s* pstVenc = _SCREENRECORD_TaskOf(run.SlotId(), E_SCREENRECORD_MODULE_VENC);
    const GatePass pass(pstVenc->callbackGate);
    const u32 u32Venc = pstVenc->u32Handle;
    ZU_VENC_InputBuffer_t stBuffer = {};
    if (u32Venc == 0 || ZU_VENC_QueryBuffer(u32Venc, &stBuffer) != ZU_OK || stBuffer.pu8Data == nullptr ||
        stBuffer.u32DataSize == 0)
        return Feeding::ENCODER_BUSY;
    const s32 s32Read = ZU_FS_Fread(stBuffer.pu8Data, 1, stBuffer.u32DataSize, run.Task()->u32SrcFile);
    if (run.Outlived())
        return Feeding::DONE; // the buffer went back with its encoder, and the next one is not this run's
    if (s32Read <= 0) {
        SR_HELPER_LOGD("Read end of file!\n");
        return Feeding::END_OF_FILE;
    }
    SR_HELPER_LOGD("Read data Size: %d\n", s32Read);

    const u32 u32Index = (pstVenc->u32InBufIndex + 1) & 15;
    pstVenc->u32InBufIndex = u32Index;
    stBuffer.u32InBufIndex = u32Index;
    stBuffer.u64Pts = static_cast<u64>(systemTime(SYSTEM_TIME_MONOTONIC) / 1000);
    if (ZU_VENC_WriteBufferComplete(u32Venc, &stBuffer) != ZU_OK) {
        SR_HELPER_LOGE("Failed to ZU_VENC_WriteBufferComplete(...)!\n");
        return Feeding::ENCODER_BUSY;
    }
    return Feeding::DONE;
}

/** One pass of the reader. False at the end of the file. */
bool FeedEncoder(WorkerRun& run)
{
    const Feeding feeding = FillInputBuffer(run);
    if (feeding == Feeding::ENCODER_BUSY)
        ZU_OS_DelayTask(SCREENRECORD_ENCODER_BUSY_MS);
    return feeding != Feeding::END_OF_FILE;
}

} // namespace

void _SCREENRECORD_VreaderTaskHandler(void* pArg)
{
    const LogAs as(__func__);
    WorkerRun run(pArg, E_SCREENRECORD_MODULE_VIDEO_SRC_READER);
    if (!run.May())
        return;
    while (!run.ExitRequested()) {
        if (run.Task()->bRunning == 1 && !FeedEncoder(run))
            break;
        ZU_OS_DelayTask(READER_PASS_MS);
    }
    run.End();
}

/** Audio from a file is fed nowhere: the task only exists, as long as its source is open. */
void _SCREENRECORD_AreaderTaskHandler(void* pArg)
{
    const LogAs as(__func__);
    WorkerRun run(pArg, E_SCREENRECORD_MODULE_AUDIO_SRC_READER);
    if (!run.May())
        return;
    while (!run.ExitRequested())
        ZU_OS_DelayTask(READER_PASS_MS);
    run.End();
}
