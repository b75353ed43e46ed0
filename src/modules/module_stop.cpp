#include "modules/module_stop.h"

#include "table/worker_tasks.h"

ModuleStop::ModuleStop(SCREENRECORD_TaskCtrl_s* pstTask, const char* pCloseName)
    : m_pstTask(pstTask)
{
    if (pstTask->u32Handle == 0) {
        SR_HELPER_LOGE("_SCREENRECORD_StopModule handle is NULL  \n");
        pstTask->bRunning = 0;
        return;
    }
    if (pstTask->eModule < E_SCREENRECORD_MODULE_MAX) {
        m_bNeeded = true;
        return;
    }
    SR_HELPER_LOGE("INVALID ModuleID Id!\n");
    if (pCloseName != nullptr)
        SR_LOG(ANDROID_LOG_ERROR, pCloseName, "SCREENRECORD_StopModule Failed!\n");
    m_u32Result = ZU_INVALID_ARGUMENT;
}

ModuleStop::~ModuleStop()
{
    if (!m_bNeeded)
        return;
    if (_SCREENRECORD_DeleteTask(m_pstTask) != ZU_OK)
        SR_HELPER_LOGE("_SCREENRECORD_DeleteTask Failed\n");
    m_pstTask->bRunning = 0;
}
