#include "modules/display_connection.h"

#include <cstdio>

#include <zu3/disp.h>

#include "base/log.h"

u32 _u32DispHandle;

namespace {

ZU_CAP_CallbackParams_t _stCapCallbackParams;
u8 _bCapCallbackRegistered;
/** the capture of the registration */
u32 _u32RegisteredCap;
/** the capture that connected the display */
u32 _u32ConnectedCap;
/** 1 = that capture is no longer in any record */
u8 _bConnectionOrphaned;

/**
 * Passed back to the handler, which logs it. Not const, because the middleware's pointer is not.
 */
char _acUserData[] = "Callback user parameter!";

void ClearRegistration()
{
    _stCapCallbackParams = ZU_CAP_CallbackParams_t{};
    _bCapCallbackRegistered = 0;
    _u32RegisteredCap = 0;
}

} // namespace

u32 _SCREENRECORD_ConnectDisp(s32 s32Handle)
{
    if (_u32DispHandle != 0) {
        SR_LOGE("Cap has connected to 0x%x\n", _u32DispHandle);
        return ZU_OK;
    }
    char acName[64] = {};
    snprintf(acName, sizeof(acName), "%s", "ZU_DISP_HD0");
    const ZU_DISP_GetHandleParams_t stDisp = {.pu8Name = acName};
    u32 u32Disp = 0;
    u32 u32Result = ZU_DISP_GetHandle(&stDisp, &u32Disp);
    if (u32Result != ZU_OK) {
        SR_LOGE("Fail to ZU_DISP_GetHandle ");
        return u32Result;
    }
    const ZU_CAP_ConnectParams_t stConnect = {};
    u32Result = ZU_CAP_ConnectInput(static_cast<u32>(s32Handle), u32Disp, &stConnect);
    if (u32Result != ZU_OK) {
        SR_LOGE("Fail to connect disp");
        return u32Result;
    }
    _u32DispHandle = u32Disp;
    _u32ConnectedCap = static_cast<u32>(s32Handle);
    _bConnectionOrphaned = 0;
    return ZU_OK;
}

u32 _SCREENRECORD_DisconnectDisp(u32 u32Handle)
{
    if (_u32DispHandle == 0)
        return ZU_OK;
    const u32 u32Result = ZU_CAP_DisconnectInput(u32Handle, _u32DispHandle);
    if (u32Result == ZU_OK || _bConnectionOrphaned == 1)
        _u32DispHandle = 0;
    return u32Result;
}

void _SCREENRECORD_ForgetCapture(u32 u32Handle)
{
    if (u32Handle == 0)
        return;
    if (u32Handle == _u32ConnectedCap)
        _u32DispHandle = 0;
    if (u32Handle == _u32RegisteredCap)
        ClearRegistration();
}

void _SCREENRECORD_OrphanCapture(u32 u32Handle)
{
    if (u32Handle != 0 && u32Handle == _u32ConnectedCap)
        _bConnectionOrphaned = 1;
}

u32 _SCREENRECORD_RegisterCallback(s32 s32Handle)
{
    _stCapCallbackParams = {.u64CallbackId = 0,
                            .pfnCallback = _SCREENRECORD_Callback,
                            .u32EventMask = 1,
                            .pUserData = _acUserData,
                            .u32Reserved = 0};
    u64 u64CallbackId = 0;
    if (ZU_CAP_RegisterCallback(static_cast<u32>(s32Handle), &_stCapCallbackParams,
                                &u64CallbackId) != ZU_OK) {
        SR_LOGE("ZU_CAP_RegisterCallback fail! \n");
        return 0;
    }
    _bCapCallbackRegistered = 1;
    _u32RegisteredCap = static_cast<u32>(s32Handle);
    _stCapCallbackParams.u64CallbackId = u64CallbackId;
    return 1;
}

u32 _SCREENRECORD_UnRegisterCallback(s32 s32Handle)
{
    if (_bCapCallbackRegistered != 1)
        return 1;
    if (ZU_CAP_UnRegisterCallback(static_cast<u32>(s32Handle), &_stCapCallbackParams) != ZU_OK) {
        SR_LOGE("ZU_CAP_UnRegisterCallback fail! \n");
        return 0;
    }
    ClearRegistration();
    return 1;
}
