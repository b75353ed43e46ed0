/** The screen capture. A failed open leaves nothing open. */
#ifndef SCREENRECORD_MODULES_SCREEN_CAPTURE_H
#define SCREENRECORD_MODULES_SCREEN_CAPTURE_H

#include "modules/display_connection.h"
#include "table/recording_table.h"

/**
 * Opens the capture at the slot's size, connects it to the display and registers the captured-frame
 * handler.
 * @return ZU_OK; ZU_INVALID_ARGUMENT for a NULL task or a picture that is too large; otherwise the
 *     failing call's result
 */
u32 _SCREENRECORD_OpenVcap(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask);
/**
 * Opens the capture for stills, without an encoder or the handler, and connects it to the display.
 * False on a failure.
 */
bool _SCREENRECORD_OpenVcapNoEnc(SCREENRECORD_TaskCtrl_s* pstTask);
/**
 * Stops and closes the capture; the record has no handle then. ZU_OK; ZU_INVALID_ARGUMENT for NULL.
 */
u32 _SCREENRECORD_CloseVcap(SCREENRECORD_TaskCtrl_s* pstTask);

/* Operations of the table in modules/module.cpp. */
u32 _SCREENRECORD_StartVcap(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId);
void _SCREENRECORD_StopVcap(SCREENRECORD_TaskCtrl_s* pstTask);

#endif
