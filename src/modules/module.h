/** Operations of every module. Results are middleware codes. */
#ifndef SCREENRECORD_MODULES_MODULE_H
#define SCREENRECORD_MODULES_MODULE_H

#include "table/recording_table.h"

/** Initialises a module once. ZU_OK; ZU_FAILURE; ZU_INVALID_ARGUMENT for an unknown module. */
u32 _SCREENRECORD_InitModule(SCREENRECORD_ZuModule_e eModule);
/** De-initialises a module that this library initialised; a failure is logged. */
void _SCREENRECORD_DeInitModule(u32 u32Module);
/** Refreshes _stModuleCaps; a record whose query fails is zero. */
void _SCREENRECORD_GetModuleCaps(void);

/** Clears a module's record and sets its index; waits for callbacks inside it. */
void _SCREENRECORD_ResetTask(SCREENRECORD_TaskCtrl_s* pstTask, SCREENRECORD_ZuModule_e eModule);

/**
 * Starts a module if it is open and not running. Passes `u32SlotId` to its worker.
 * @return ZU_OK, ZU_INVALID_ARGUMENT, or the failing call's result (the module is stopped again)
 */
u32 _SCREENRECORD_StartModule(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId);
/**
 * Stops a module, running or not. Failures of the middleware are only logged. ZU_OK or
 * ZU_INVALID_ARGUMENT.
 */
u32 _SCREENRECORD_StopModule(SCREENRECORD_TaskCtrl_s* pstTask);

#endif
