/**
 * The video and audio source readers: a file in place of a capture, and the worker that reads it.
 */
#ifndef SCREENRECORD_MODULES_SOURCE_READER_H
#define SCREENRECORD_MODULES_SOURCE_READER_H

#include "table/recording_table.h"

/**
 * Opens a source reader's file. ZU_OK; ZU_INVALID_ARGUMENT for another module; ZU_FAILURE.
 */
u32 _SCREENRECORD_OpenSrcReader(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask);
/**
 * Stops the reader and closes its file. ZU_OK; ZU_INVALID_ARGUMENT for NULL.
 */
u32 _SCREENRECORD_CloseSrcReader(SCREENRECORD_TaskCtrl_s* pstTask);

/* The readers' workers. `pArg`: the argument block. */
void _SCREENRECORD_VreaderTaskHandler(void* pArg);
void _SCREENRECORD_AreaderTaskHandler(void* pArg);

/* Operations of the table in modules/module.cpp. */
u32 _SCREENRECORD_StartVideoReader(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId);
u32 _SCREENRECORD_StartAudioReader(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId);

#endif
