/** Operations of every module. Results are middleware codes. */
#ifndef SCREENRECORD_MODULES_MODULE_H
#define SCREENRECORD_MODULES_MODULE_H

#include "table/recording_table.h"

/**
 * The operations of a module. NULL = nothing to do; pfnInit is never NULL. Each logs under the name
 * of its caller.
 */
struct SCREENRECORD_ModuleOperations_s {
    /**
     * Initialises the module in the process. ZU_OK; ZU_ALREADY_INITIALISED if another user of the
     * process did it or there is nothing to undo; any other result is a failure, and logged.
     */
    u32 (*pfnInit)() = nullptr;
    u32 (*pfnDeInit)() = nullptr;
    /** log text */
    const char* pDeInitFailure = nullptr;
    /** Starts an opened module; passes `u32SlotId` to its worker. A failure is logged. */
    u32 (*pfnStart)(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId) = nullptr;
    /** Stops an open module's device; failures are only logged. */
    void (*pfnStop)(SCREENRECORD_TaskCtrl_s* pstTask) = nullptr;
    /** Handles the loss of an open handle (0 = none) by a reset of its record. */
    void (*pfnForget)(u32 u32Handle) = nullptr;
};
/** By SCREENRECORD_ZuModule_e. */
extern const SCREENRECORD_ModuleOperations_s _astModuleOperations[E_SCREENRECORD_MODULE_MAX];

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
