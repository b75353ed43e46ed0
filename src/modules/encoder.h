/** The video encoder. A failed open leaves nothing open. */
#ifndef SCREENRECORD_MODULES_ENCODER_H
#define SCREENRECORD_MODULES_ENCODER_H

#include <screenrecord/screenrecord.h>
#include <zu3/venc.h>

#include "table/recording_table.h"

/** True if a size and a rate are within the encoder's capabilities. */
bool _SCREENRECORD_VencSupports(u32 u32Width, u32 u32Height, u32 u32FrameRate);

/**
 * Opens the slot's encoder for a transport-stream recording.
 * @return ZU_OK; ZU_INVALID_ARGUMENT for NULL; otherwise ZU_FAILURE
 */
u32 _SCREENRECORD_OpenVenc(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask);
/**
 * Opens slot 0's encoder for the capture-encode interface, with its inject buffer if it offers one.
 * @param pfnOutput receives the encoded frames
 * @return ZU_OK or ZU_FAILURE
 */
u32 _SCREENRECORD_OpenVenc_NoTs(const CapEnc_OpenParams& stParams, ZU_VENC_Callback pfnOutput);
/**
 * Stops and closes the encoder; the record has no handle then. ZU_OK; ZU_INVALID_ARGUMENT for NULL.
 */
u32 _SCREENRECORD_CloseVenc(SCREENRECORD_TaskCtrl_s* pstTask);

/* Operations of the table in modules/module.cpp. */
u32 _SCREENRECORD_InitVenc();
u32 _SCREENRECORD_StartVenc(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId);
void _SCREENRECORD_StopVenc(SCREENRECORD_TaskCtrl_s* pstTask);

#endif
