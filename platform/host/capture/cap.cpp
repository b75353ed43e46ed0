#include "base/handle_table.h"
#include "capture/capture_device.h"

namespace {

using zu3host::at_border;
using zu3host::CaptureDevice;

constexpr auto devices = zu3host::handle_table<CaptureDevice, 0xCA900001>;

template <typename F> u32 with_device(const char* function, u32 handle, F call)
{
    return zu3host::with_object(function, devices, handle, call);
}

} // namespace

HOST_EXPORT u32 ZU_CAP_DeInit(void)
{
    // all state belongs to open devices
    return ZU_OK;
}

HOST_EXPORT u32 ZU_CAP_Open(const ZU_CAP_OpenParams_t* pstParams, u32* pu32Handle)
{
    if (!pstParams || !pu32Handle || pstParams->u8CapturePath != 0)
        return ZU_INVALID_ARGUMENT;
    return at_border(__func__, [=] {
        zu3host::store_output(pu32Handle, devices().add(std::make_shared<CaptureDevice>()));
        return u32{ZU_OK};
    });
}

HOST_EXPORT u32 ZU_CAP_Close(u32 u32Handle)
{
    // Removed once it is closed: a close out of the callback is refused and leaves the device open.
    return with_device(__func__, u32Handle, [=](CaptureDevice& device) {
        const uint32_t result = device.close();
        if (result == ZU_OK)
            devices().remove(u32Handle);
        return result;
    });
}

HOST_EXPORT u32 ZU_CAP_ConnectInput(u32 u32Handle, u32 u32DispHandle,
                                    const ZU_CAP_ConnectParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle,
                       [=](CaptureDevice& device) { return device.connect(u32DispHandle); });
}

HOST_EXPORT u32 ZU_CAP_DisconnectInput(u32 u32Handle, u32 u32DispHandle)
{
    return with_device(__func__, u32Handle,
                       [=](CaptureDevice& device) { return device.disconnect(u32DispHandle); });
}

HOST_EXPORT u32 ZU_CAP_RegisterCallback(u32 u32Handle, const ZU_CAP_CallbackParams_t* pstParams,
                                        u64* pu64CallbackId)
{
    if (!pstParams || !pu64CallbackId)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle, [=](CaptureDevice& device) {
        return device.set_callback(*pstParams, *pu64CallbackId);
    });
}

HOST_EXPORT u32 ZU_CAP_UnRegisterCallback(u32 u32Handle, const ZU_CAP_CallbackParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle, [=](CaptureDevice& device) {
        return device.remove_callback(pstParams->u64CallbackId);
    });
}

HOST_EXPORT u32 ZU_CAP_CaptureStart(u32 u32Handle, const ZU_CAP_CaptureParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle,
                       [=](CaptureDevice& device) { return device.start(u32Handle, *pstParams); });
}

HOST_EXPORT u32 ZU_CAP_CaptureStop(u32 u32Handle)
{
    return with_device(__func__, u32Handle, [](CaptureDevice& device) { return device.stop(); });
}

HOST_EXPORT u32 ZU_CAP_CaptureOne(u32 u32Handle, const ZU_CAP_CaptureParams_t* pstParams,
                                  ZU_CAP_FrameInfo_t* pstFrame)
{
    if (!pstParams || !pstFrame)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle, [=](CaptureDevice& device) {
        return device.capture_one(*pstParams, *pstFrame);
    });
}

HOST_EXPORT u32 ZU_CAP_ProcessBufDone(u32 u32Handle, u32 u32BufIndex)
{
    return with_device(__func__, u32Handle,
                       [=](CaptureDevice& device) { return device.give_back(u32BufIndex); });
}
