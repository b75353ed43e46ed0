/** Worker tasks of a recording: creation and deletion. */
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
 * running worker, and not for one that has not run yet. Retires a worker that deletes itself, as a
 * writer does at the time limit, instead of waiting for it: the worker ends, and the slot's next
 * control call, or de-initialisation, reclaims it.
 * @return ZU_OK, ZU_INVALID_ARGUMENT for NULL
 */
u32 _SCREENRECORD_DeleteTask(SCREENRECORD_TaskCtrl_s* pstTask);

#endif
