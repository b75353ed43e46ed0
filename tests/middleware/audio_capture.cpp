#include <algorithm>

#include "middleware/device_calls.h"

using namespace middleware;

void Middleware::queue_audio(const Bytes& bytes)
{
    const Lock lock(state().mutex);
    state().audio.insert(state().audio.end(), bytes.begin(), bytes.end());
}

extern "C" {

u32 ZU_ACAP_Init(const ZU_ACAP_InitParams_t* params)
{
    return init_call("ZU_ACAP", *params);
}

u32 ZU_ACAP_DeInit(void)
{
    return deinit_call("ZU_ACAP");
}

u32 ZU_ACAP_GetCaps(ZU_ACAP_Caps_t* caps)
{
    return caps_call("ZU_ACAP_GetCaps", caps, {1});
}

u32 ZU_VIDEO_GetCaps(ZU_VIDEO_Caps_t* caps)
{
    return caps_call("ZU_VIDEO_GetCaps", caps, {});
}

u32 ZU_AUDIO_GetCaps(ZU_AUDIO_Caps_t* caps)
{
    return caps_call("ZU_AUDIO_GetCaps", caps, {});
}

u32 ZU_ACAP_Open(const ZU_ACAP_OpenParams_t* params, u32* handle)
{
    return open_call("ZU_ACAP_Open", Kind::audio, text("name=", params->pu8Name), handle, [](Device&) {});
}

u32 ZU_ACAP_Close(u32 handle)
{
    return close_call("ZU_ACAP_Close", Kind::audio, handle);
}

u32 ZU_ACAP_RegisterCallback(u32 handle, const ZU_ACAP_CallbackParams_t* params, u64* id)
{
    return register_call("ZU_ACAP_RegisterCallback", Kind::audio, handle, *params, &Device::audio_callback,
                         id);
}

u32 ZU_ACAP_UnRegisterCallback(u32 handle, const ZU_ACAP_CallbackParams_t* params)
{
    return unregister_call("ZU_ACAP_UnRegisterCallback", Kind::audio, handle, params->u64CallbackId);
}

u32 ZU_ACAP_SetVolume(u32 handle, u32 volume)
{
    return device_call("ZU_ACAP_SetVolume", Kind::audio, handle, text(", ", volume));
}

u32 ZU_ACAP_Start(u32 handle, const ZU_ACAP_StartParams_t* params)
{
    return device_call("ZU_ACAP_Start", Kind::audio, handle, text(", ", params->u8Reserved));
}

u32 ZU_ACAP_Stop(u32 handle)
{
    return device_call("ZU_ACAP_Stop", Kind::audio, handle);
}

u32 ZU_ACAP_GetAttr(u32 handle, u32 type, u32 index, void* value)
{
    return device_call("ZU_ACAP_GetAttr", Kind::audio, handle, text(", ", type, ", ", index),
                       [&](Context& context, Device&) {
                           if (type != ZU_ACAP_ATTR_BUFFER_LEVEL)
                               return ZU_INVALID_ARGUMENT;
                           const u32 queued = static_cast<u32>(state().audio.size());
                           const u32 level = Middleware::instance().settings.audio_level.value_or(queued);
                           *static_cast<u32*>(value) = level;
                           context.note = text("level=", level);
                           return ZU_OK;
                       });
}

u32 ZU_ACAP_Read(u32 handle, const ZU_ACAP_ReadRequest_t* request, ZU_ACAP_ReadResult_t* result)
{
    return device_call("ZU_ACAP_Read", Kind::audio, handle, text(", size=", request->u32Size),
                       [&](Context& context, Device&) {
                           result->u32Size = move_out(state().audio, request->pBuffer, request->u32Size,
                                                      Middleware::instance().settings.claimed_read);
                           context.note = text("read=", result->u32Size);
                           return ZU_OK;
                       });
}
}
