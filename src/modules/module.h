/** The operations on a single module that several interfaces share. Results are the middleware's codes. */
#ifndef SCREENRECORD_MODULES_MODULE_H
#define SCREENRECORD_MODULES_MODULE_H

#include "table/recording_table.h"

/** Initialises a module once, whoever asks first. ZU_OK, ZU_FAILURE, ZU_INVALID_ARGUMENT for no module. */
u32 _SCREENRECORD_InitModule(SCREENRECORD_ZuModule_e eModule);
/** Queries _stModuleCaps anew; what cannot be queried stays zero. */
void _SCREENRECORD_GetModuleCaps(void);

/**
 * Starts an opened module; nothing to do for one that is not open or runs already. `u32SlotId` goes to its
 * worker.
 * @return ZU_OK, ZU_INVALID_ARGUMENT, or the failing call's result (the module is stopped again)
 */
u32 _SCREENRECORD_StartModule(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId);
/** Stops a module, whether it runs or not. Failures of the middleware are logged only. ZU_OK,
 * ZU_INVALID_ARGUMENT. */
u32 _SCREENRECORD_StopModule(SCREENRECORD_TaskCtrl_s* pstTask);

/* Each stops the module first and leaves the record without a handle. ZU_OK, ZU_INVALID_ARGUMENT for NULL. */
u32 _SCREENRECORD_CloseSrcReader(SCREENRECORD_TaskCtrl_s* pstTask);
u32 _SCREENRECORD_CloseVcap(SCREENRECORD_TaskCtrl_s* pstTask);
u32 _SCREENRECORD_CloseAcap(SCREENRECORD_TaskCtrl_s* pstTask);
u32 _SCREENRECORD_CloseVenc(SCREENRECORD_TaskCtrl_s* pstTask);
u32 _SCREENRECORD_CloseTsmux(SCREENRECORD_TaskCtrl_s* pstTask);

#endif
