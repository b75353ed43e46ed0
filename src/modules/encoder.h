/** The video encoder. An opening that fails half-way leaves nothing open. */
#ifndef SCREENRECORD_MODULES_ENCODER_H
#define SCREENRECORD_MODULES_ENCODER_H

#include <screenrecord/screenrecord.h>
#include <zu3/venc.h>

#include "table/recording_table.h"

/**
 * Opens the slot's encoder for transport-stream recording. ZU_OK, ZU_INVALID_ARGUMENT for NULL,
 * otherwise ZU_FAILURE.
 */
u32 _SCREENRECORD_OpenVenc(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask);
/**
 * Opens slot 0's encoder for the capture-encode interface, with the inject buffer if it offers one;
 * `pfnOutput` gets its frames. ZU_OK or ZU_FAILURE.
 */
u32 _SCREENRECORD_OpenVenc_NoTs(const CapEnc_OpenParams& stParams, ZU_VENC_Callback pfnOutput);
/**
 * Stops the encoder first and leaves the record without a handle. ZU_OK, ZU_INVALID_ARGUMENT for
 * NULL.
 */
u32 _SCREENRECORD_CloseVenc(SCREENRECORD_TaskCtrl_s* pstTask);

/* Operations of the module's table (modules/module.h). */
u32 _SCREENRECORD_InitVenc();
u32 _SCREENRECORD_StartVenc(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId);
void _SCREENRECORD_StopVenc(SCREENRECORD_TaskCtrl_s* pstTask);

#endif
