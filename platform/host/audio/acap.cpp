// The audio capture's contract functions: handles to objects, arguments checked.
#include "audio/audio_device.h"
#include "common/handle_table.h"
#include "log/host_log.h"

#include <algorithm>
#include <atomic>
#include <exception>

#pragma GCC visibility push(default)
#include "zu3/acap.h"
#pragma GCC visibility pop

using namespace zu3host;

namespace {

constexpr uint32_t first_handle = 0x500;

// Never destroyed: a capture that is still open when the process ends may be in use on another thread.
HandleTable<AudioDevice>& devices()
{
    static auto& table = *new HandleTable<AudioDevice>(first_handle);
    return table;
}

std::atomic<bool> initialised{false};
std::atomic<u64> last_callback_id{0};

/** Calls `action` with the handle's device, or reports that there is none; nothing is thrown into the client.
 */
template <typename Action> u32 with_device(u32 handle, Action action)
{
    const auto device = devices().find(handle);
    if (!device)
        return ZU_INVALID_ARGUMENT;
    try {
        action(*device);
        return ZU_OK;
    } catch (const std::exception& failure) {
        HOST_LOGE("Audio capture cannot be started: %s.", failure.what());
        return ZU_FAILURE;
    }
}

} // namespace

#pragma GCC visibility push(default)

u32 ZU_ACAP_Init(const ZU_ACAP_InitParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return initialised.exchange(true) ? ZU_ALREADY_INITIALISED : ZU_OK;
}

u32 ZU_ACAP_DeInit(void)
{
    initialised.store(false);
    return ZU_OK; // what is held belongs to open handles
}

u32 ZU_ACAP_GetCaps(ZU_ACAP_Caps_t* pstCaps)
{
    if (!pstCaps)
        return ZU_INVALID_ARGUMENT;
    *pstCaps = {};
    return ZU_OK;
}

u32 ZU_ACAP_Open(const ZU_ACAP_OpenParams_t* pstParams, u32* pu32Handle)
{
    if (!pstParams || !pu32Handle)
        return ZU_INVALID_ARGUMENT;
    try {
        *pu32Handle = devices().add(std::make_shared<AudioDevice>());
        return ZU_OK;
    } catch (const std::exception& failure) {
        HOST_LOGE("Audio capture cannot be opened: %s.", failure.what());
        return ZU_FAILURE;
    }
}

u32 ZU_ACAP_Close(u32 u32Handle)
{
    const auto device = devices().remove(u32Handle);
    if (!device)
        return ZU_INVALID_ARGUMENT;
    device->stop(); // another thread's call may still hold the object
    return ZU_OK;
}

// Audio capture here has no events: there is nothing to keep of a registration, and a removal without one is
// no fault either.
u32 ZU_ACAP_RegisterCallback(u32 u32Handle, const ZU_ACAP_CallbackParams_t* pstParams, u64* pu64CallbackId)
{
    if (!pstParams || !pstParams->pfnCallback || !pu64CallbackId)
        return ZU_INVALID_ARGUMENT;
    return with_device(u32Handle, [=](AudioDevice&) { *pu64CallbackId = ++last_callback_id; });
}

u32 ZU_ACAP_UnRegisterCallback(u32 u32Handle, const ZU_ACAP_CallbackParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return with_device(u32Handle, [](AudioDevice&) {});
}

u32 ZU_ACAP_SetVolume(u32 u32Handle, u32 u32Volume)
{
    if (u32Volume > 100)
        return ZU_INVALID_ARGUMENT;
    return with_device(u32Handle, [=](AudioDevice& device) { device.set_volume(u32Volume); });
}

u32 ZU_ACAP_Start(u32 u32Handle, const ZU_ACAP_StartParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return with_device(u32Handle, [](AudioDevice& device) { device.start(); });
}

u32 ZU_ACAP_Stop(u32 u32Handle)
{
    return with_device(u32Handle, [](AudioDevice& device) { device.stop(); });
}

u32 ZU_ACAP_GetAttr(u32 u32Handle, u32 u32Type, u32 u32Index, void* pValue)
{
    if (u32Type != ZU_ACAP_ATTR_BUFFER_LEVEL || u32Index != 0 || !pValue)
        return ZU_INVALID_ARGUMENT;
    return with_device(u32Handle, [=](AudioDevice& device) {
        *static_cast<u32*>(pValue) = static_cast<u32>(device.level());
    });
}

u32 ZU_ACAP_Read(u32 u32Handle, const ZU_ACAP_ReadRequest_t* pstRequest, ZU_ACAP_ReadResult_t* pstResult)
{
    if (!pstRequest || !pstResult || (!pstRequest->pBuffer && pstRequest->u32Size != 0))
        return ZU_INVALID_ARGUMENT;
    return with_device(u32Handle, [=](AudioDevice& device) {
        *pstResult = {};
        pstResult->u32Size = static_cast<u32>(device.read(pstRequest->pBuffer, pstRequest->u32Size));
    });
}

#pragma GCC visibility pop
