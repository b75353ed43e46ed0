// The audio capture's contract functions: handles to objects, arguments checked.
#include "zu3/acap.h"
#include "audio/audio_device.h"
#include "base/border.h"

#include <atomic>

using namespace zu3host;

namespace {

constexpr uint32_t first_handle = 0x500;

// Never destroyed: a capture that is still open when the process ends may be in use on another
// thread.
HandleTable<AudioDevice>& devices()
{
    static auto& table = *new HandleTable<AudioDevice>(first_handle);
    return table;
}

std::atomic<bool> initialised{false};
std::atomic<u64> last_callback_id{0};

/** What a device does it has done: it refuses nothing. */
template <typename Action> u32 with_device(const char* function, u32 handle, Action action)
{
    return with_object(function, devices, handle, [&](AudioDevice& device) {
        action(device);
        return u32{ZU_OK};
    });
}

} // namespace

HOST_EXPORT u32 ZU_ACAP_Init(const ZU_ACAP_InitParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return initialised.exchange(true) ? ZU_ALREADY_INITIALISED : ZU_OK;
}

HOST_EXPORT u32 ZU_ACAP_DeInit(void)
{
    initialised.store(false);
    // what is held belongs to open handles
    return ZU_OK;
}

HOST_EXPORT u32 ZU_ACAP_GetCaps(ZU_ACAP_Caps_t* pstCaps)
{
    if (!pstCaps)
        return ZU_INVALID_ARGUMENT;
    *pstCaps = {};
    return ZU_OK;
}

HOST_EXPORT u32 ZU_ACAP_Open(const ZU_ACAP_OpenParams_t* pstParams, u32* pu32Handle)
{
    if (!pstParams || !pu32Handle)
        return ZU_INVALID_ARGUMENT;
    return at_border(__func__, [=] {
        zu3host::store_output(pu32Handle, devices().add(std::make_shared<AudioDevice>()));
        return u32{ZU_OK};
    });
}

HOST_EXPORT u32 ZU_ACAP_Close(u32 u32Handle)
{
    return at_border(__func__, [=]() -> u32 {
        const auto device = devices().remove(u32Handle);
        if (!device)
            return ZU_INVALID_ARGUMENT;
        // another thread's call may still hold the object
        device->stop();
        return ZU_OK;
    });
}

// Audio capture here has no events: there is nothing to keep of a registration, and a removal
// without one is no fault either.
HOST_EXPORT u32 ZU_ACAP_RegisterCallback(u32 u32Handle, const ZU_ACAP_CallbackParams_t* pstParams,
                                         u64* pu64CallbackId)
{
    if (!pstParams || !pstParams->pfnCallback || !pu64CallbackId)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle,
                       [=](AudioDevice&) { *pu64CallbackId = ++last_callback_id; });
}

HOST_EXPORT u32 ZU_ACAP_UnRegisterCallback(u32 u32Handle, const ZU_ACAP_CallbackParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle, [](AudioDevice&) {});
}

HOST_EXPORT u32 ZU_ACAP_SetVolume(u32 u32Handle, u32 u32Volume)
{
    if (u32Volume > 100)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle,
                       [=](AudioDevice& device) { device.set_volume(u32Volume); });
}

HOST_EXPORT u32 ZU_ACAP_Start(u32 u32Handle, const ZU_ACAP_StartParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle, [](AudioDevice& device) { device.start(); });
}

HOST_EXPORT u32 ZU_ACAP_Stop(u32 u32Handle)
{
    return with_device(__func__, u32Handle, [](AudioDevice& device) { device.stop(); });
}

HOST_EXPORT u32 ZU_ACAP_GetAttr(u32 u32Handle, u32 u32Type, u32 u32Index, void* pValue)
{
    if (u32Type != ZU_ACAP_ATTR_BUFFER_LEVEL || u32Index != 0 || !pValue)
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle, [=](AudioDevice& device) {
        *static_cast<u32*>(pValue) = static_cast<u32>(device.level());
    });
}

HOST_EXPORT u32 ZU_ACAP_Read(u32 u32Handle, const ZU_ACAP_ReadRequest_t* pstRequest,
                             ZU_ACAP_ReadResult_t* pstResult)
{
    if (!pstRequest || !pstResult || (!pstRequest->pBuffer && pstRequest->u32Size != 0))
        return ZU_INVALID_ARGUMENT;
    return with_device(__func__, u32Handle, [=](AudioDevice& device) {
        *pstResult = {};
        pstResult->u32Size =
            static_cast<u32>(device.read(pstRequest->pBuffer, pstRequest->u32Size));
    });
}
