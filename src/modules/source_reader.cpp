#include "modules/source_reader.h"

#include <utils/Timers.h>
#include <zu3/fs.h>

#include "base/log.h"
#include "modules/module_stop.h"
#include "table/worker_run.h"
#include "table/worker_tasks.h"

namespace {

enum {
    READER_PASS_MS = 28,
    READER_STACK_SIZE = 4096,
};

enum class Feeding { DONE, ENCODER_BUSY, END_OF_FILE };

/**
 * Fills one encoder input buffer from the source file. A close of the encoder waits for it.
 */
Feeding FillInputBuffer(WorkerRun& run)
{
    SCREENRECORD_TaskCtrl_s* pstVenc =
        _SCREENRECORD_TaskOf(run.SlotId(), E_SCREENRECORD_MODULE_VENC);
    const GatePass pass(pstVenc->callbackGate);
    const u32 u32Venc = pstVenc->u32Handle;
    ZU_VENC_InputBuffer_t stBuffer = {};
    if (u32Venc == 0 || ZU_VENC_QueryBuffer(u32Venc, &stBuffer) != ZU_OK ||
        stBuffer.pu8Data == nullptr || stBuffer.u32DataSize == 0)
        return Feeding::ENCODER_BUSY;
    const s32 s32Read =
        ZU_FS_Fread(stBuffer.pu8Data, 1, stBuffer.u32DataSize, run.Task()->u32SrcFile);
    if (run.GivenUp())
        // the buffer went with its encoder, and the record belongs to another run
        return Feeding::DONE;
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

/** One pass of the reader. False at end of file. */
bool FeedEncoder(WorkerRun& run)
{
    const Feeding feeding = FillInputBuffer(run);
    if (feeding == Feeding::ENCODER_BUSY)
        ZU_OS_DelayTask(SCREENRECORD_ENCODER_BUSY_MS);
    return feeding != Feeding::END_OF_FILE;
}

/** `pKind`: "VIDEO" or "AUDIO", for the log. */
u32 StartReader(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId, ZU_OS_TaskEntry pfnEntry,
                const char* pKind)
{
    const u32 u32Result = _SCREENRECORD_CreateTask(pstTask, u32SlotId, READER_STACK_SIZE, pfnEntry);
    if (u32Result != ZU_OK)
        SR_HELPER_LOGE("Failed to Create %s Src Reader Handler Task(...)!\n", pKind);
    return u32Result;
}

} // namespace

u32 _SCREENRECORD_OpenSrcReader(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (pstSlot == nullptr || pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    const char* pName = nullptr;
    if (pstTask->eModule == E_SCREENRECORD_MODULE_VIDEO_SRC_READER) {
        pName = pstSlot->stSrcInfo.pu8VideoSrcName;
    } else if (pstTask->eModule == E_SCREENRECORD_MODULE_AUDIO_SRC_READER) {
        pName = pstSlot->stSrcInfo.pu8AudioSrcName;
    } else {
        SR_LOGE("Support module!\n");
        return ZU_INVALID_ARGUMENT;
    }
    const u32 u32File = ZU_FS_Fopen(pName, "rb");
    pstTask->u32SrcFile = u32File;
    if (u32File == 0) {
        SR_LOGE("Error: failed to ZU_FS_Fopen(%s) for Input Sourcen", pName);
        return ZU_FAILURE;
    }
    ZU_FS_Fseek(u32File, 0, 0);
    pstTask->u32Handle = u32File & 0x7FFFFFFF;
    return ZU_OK;
}

u32 _SCREENRECORD_StartVideoReader(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId)
{
    return StartReader(pstTask, u32SlotId, _SCREENRECORD_VreaderTaskHandler, "VIDEO");
}

u32 _SCREENRECORD_StartAudioReader(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId)
{
    return StartReader(pstTask, u32SlotId, _SCREENRECORD_AreaderTaskHandler, "AUDIO");
}

void _SCREENRECORD_VreaderTaskHandler(void* pArg)
{
    const LogAs as(__func__);
    WorkerRun run(pArg, E_SCREENRECORD_MODULE_VIDEO_SRC_READER);
    if (run.Cancelled())
        return;
    while (!run.ExitRequested()) {
        if (run.Task()->bRunning == 1 && !FeedEncoder(run))
            break;
        ZU_OS_DelayTask(READER_PASS_MS);
    }
    run.End();
}

/** The file's audio is not used: the task only waits until it is deleted. */
void _SCREENRECORD_AreaderTaskHandler(void* pArg)
{
    const LogAs as(__func__);
    WorkerRun run(pArg, E_SCREENRECORD_MODULE_AUDIO_SRC_READER);
    if (run.Cancelled())
        return;
    while (!run.ExitRequested())
        ZU_OS_DelayTask(READER_PASS_MS);
    run.End();
}

u32 _SCREENRECORD_CloseSrcReader(SCREENRECORD_TaskCtrl_s* pstTask)
{
    const LogAs as(__func__);
    if (pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    {
        // the worker is all that there is to stop
        const ModuleStop stop(pstTask, __func__);
    }
    if (pstTask->u32SrcFile != 0 && ZU_FS_Fclose(pstTask->u32SrcFile) != ZU_OK)
        SR_LOGE("ZU_FS_Fclose Failed!\n");
    ZU_FS_Sync();
    pstTask->u32SrcFile = 0;
    pstTask->u32Handle = 0;
    return ZU_OK;
}
