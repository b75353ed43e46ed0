/** The transport-stream multiplexer. A failed open leaves nothing open. */
#ifndef SCREENRECORD_MODULES_MULTIPLEXER_H
#define SCREENRECORD_MODULES_MULTIPLEXER_H

#include "table/recording_table.h"

/**
 * Opens the slot's multiplexer with the packet size and rate of `stSrcInfo`; on success sets its
 * bTsmuxOpened. A failure is logged.
 */
bool _SCREENRECORD_OpenTsmux(SCREENRECORD_SrcInfo_s& stSrcInfo, SCREENRECORD_TaskCtrl_s* pstTask);
/**
 * Stops and closes the multiplexer; the record has no handle then. ZU_OK; ZU_INVALID_ARGUMENT for
 * NULL.
 */
u32 _SCREENRECORD_CloseTsmux(SCREENRECORD_TaskCtrl_s* pstTask);

/* Operations of the table in modules/module.cpp. */
u32 _SCREENRECORD_InitTsmux();
u32 _SCREENRECORD_StartTsmux(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId);
void _SCREENRECORD_StopTsmux(SCREENRECORD_TaskCtrl_s* pstTask);

#endif
