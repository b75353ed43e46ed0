/** The common part of every module's stop. */
#ifndef SCREENRECORD_MODULES_MODULE_STOP_H
#define SCREENRECORD_MODULES_MODULE_STOP_H

#include "base/log.h"
#include "table/recording_table.h"

/**
 * The scope of a module's stop. In it the module stops its device if Needed(); helpers log under
 * the stop's name. The end of the scope deletes the module's worker and marks the record as not
 * running.
 */
class ModuleStop {
public:
    /**
     * Logs a module that is not open, and one that is unknown.
     * @param pCloseName name of the close that begins with this stop, which then logs the stop's
     *     failure; NULL = none
     */
    explicit ModuleStop(SCREENRECORD_TaskCtrl_s* pstTask, const char* pCloseName = nullptr);
    ~ModuleStop();
    ModuleStop(const ModuleStop&) = delete;
    ModuleStop& operator=(const ModuleStop&) = delete;

    bool Needed() const { return m_bNeeded; }
    /** ZU_OK; ZU_INVALID_ARGUMENT for an unknown module */
    u32 Result() const { return m_u32Result; }

private:
    const LogAs m_as{"_SCREENRECORD_StopModule"};
    SCREENRECORD_TaskCtrl_s* const m_pstTask;
    bool m_bNeeded = false;
    u32 m_u32Result = ZU_OK;
};

#endif
