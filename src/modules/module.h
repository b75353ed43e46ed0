/** The operations that every module has. Results are the middleware's codes. */
#ifndef SCREENRECORD_MODULES_MODULE_H
#define SCREENRECORD_MODULES_MODULE_H

#include "table/recording_table.h"

/**
 * The operations of a module. NULL: nothing to do; only the initialisation is never NULL. They log
 * under the name of the function that calls them: the initialisation, the start, the stop.
 */
struct SCREENRECORD_ModuleOperations_s {
    /**
     * Initialises the module in the process. ZU_OK, ZU_ALREADY_INITIALISED: another user of the
     * process did it, or there is nothing to undo; another result is a failure, which it logs.
     */
    u32 (*pfnInit)() = nullptr;
    u32 (*pfnDeInit)() = nullptr;
    /** text for the log */
    const char* pDeInitFailure = nullptr;
    /** Starts an opened module; `u32SlotId` goes to its worker. A failure is logged. */
    u32 (*pfnStart)(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId) = nullptr;
    /** Stops a module; failures are logged only. Its worker is deleted afterwards. */
    void (*pfnStop)(SCREENRECORD_TaskCtrl_s* pstTask) = nullptr;
    /** Forgets a handle (0 = none) that its record loses while it is open. */
    void (*pfnForget)(u32 u32Handle) = nullptr;
};
/** By SCREENRECORD_ZuModule_e. */
extern const SCREENRECORD_ModuleOperations_s _astModuleOperations[E_SCREENRECORD_MODULE_MAX];

/** Initialises a module unless it is. ZU_OK, ZU_FAILURE, ZU_INVALID_ARGUMENT for no module. */
u32 _SCREENRECORD_InitModule(SCREENRECORD_ZuModule_e eModule);
/** De-initialises a module that this library initialised; a failure is logged. */
void _SCREENRECORD_DeInitModule(u32 u32Module);
/** Queries _stModuleCaps anew; a record whose query fails stays zero. */
void _SCREENRECORD_GetModuleCaps(void);

/** Clears a module's record and gives it its index; waits for callbacks that are in it. */
void _SCREENRECORD_ResetTask(SCREENRECORD_TaskCtrl_s* pstTask, SCREENRECORD_ZuModule_e eModule);

/**
 * Starts an opened module; nothing to do for one that is not open or runs already. `u32SlotId` goes
 * to its worker.
 * @return ZU_OK, ZU_INVALID_ARGUMENT, or the failing call's result (the module is stopped again)
 */
u32 _SCREENRECORD_StartModule(SCREENRECORD_TaskCtrl_s* pstTask, u32 u32SlotId);
/**
 * Stops a module, whether it runs or not. Failures of the middleware are logged only. ZU_OK,
 * ZU_INVALID_ARGUMENT.
 */
u32 _SCREENRECORD_StopModule(SCREENRECORD_TaskCtrl_s* pstTask);
/** The stop that a module's close begins with; a failure is logged under the close's name. */
void _SCREENRECORD_StopBeforeClose(SCREENRECORD_TaskCtrl_s* pstTask);

#endif
