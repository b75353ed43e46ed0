/** The sound capture. A failed open leaves nothing open. */
#ifndef SCREENRECORD_MODULES_SOUND_CAPTURE_H
#define SCREENRECORD_MODULES_SOUND_CAPTURE_H

#include "table/recording_table.h"

/**
 * Opens the sound capture.
 * @param bRegisterCallback 1 = register the event callback
 * @return ZU_OK or ZU_FAILURE
 */
u32 _SCREENRECORD_OpenAcap(SCREENRECORD_TaskCtrl_s* pstTask, u8 bRegisterCallback);
/**
 * Stops and closes the capture; the record has no handle then. ZU_OK; ZU_INVALID_ARGUMENT for NULL.
 */
u32 _SCREENRECORD_CloseAcap(SCREENRECORD_TaskCtrl_s* pstTask);

/* Operations of the table in modules/module.cpp. */
u32 _SCREENRECORD_InitAcap();
u32 _SCREENRECORD_StartAcap(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId);
void _SCREENRECORD_StopAcap(SCREENRECORD_TaskCtrl_s* pstTask);

#endif
