#include <algorithm>

#include "middleware/state.h"

using namespace middleware;

namespace middleware {

void Middleware::queue_audio(const Bytes& bytes)
{
    const Lock lock(state().mutex);
    state().audio.insert(state().audio.end(), bytes.begin(), bytes.end());
}

} // namespace middleware

namespace {

u32 register_callback(Context& context, u32 handle, const ZU_ACAP_CallbackParams_t& params, u64* id)
{
    keep("ZU_ACAP_RegisterCallback", params);
    Device* const device = live_device(handle, Kind::audio, "ZU_ACAP_RegisterCallback");
    if (!device)
        return ZU_INVALID_ARGUMENT;
    device->audio_callback = params.pfnCallback;
    device->user_data = params.pUserData;
    device->registration = *id = new_registration();
    context.note = "id=" + hex(*id);
    return ZU_OK;
}

} // namespace

extern "C" {

u32 ZU_ACAP_Init(const ZU_ACAP_InitParams_t* params)
{
    return call("ZU_ACAP_Init", text(params->u8Reserved),
                [](Context& context) { return initialise("ZU_ACAP", context); });
}

u32 ZU_ACAP_DeInit(void)
{
    return ending_call("ZU_ACAP_DeInit", "",
                       [](Context& context) { return deinitialise("ZU_ACAP", context); });
}

u32 ZU_ACAP_GetCaps(ZU_ACAP_Caps_t* caps)
{
    return call("ZU_ACAP_GetCaps", "", [&](Context&) {
        *caps = {1};
        return ZU_OK;
    });
}

u32 ZU_VIDEO_GetCaps(ZU_VIDEO_Caps_t* caps)
{
    return call("ZU_VIDEO_GetCaps", "", [&](Context&) {
        *caps = {};
        return ZU_OK;
    });
}

u32 ZU_AUDIO_GetCaps(ZU_AUDIO_Caps_t* caps)
{
    return call("ZU_AUDIO_GetCaps", "", [&](Context&) {
        *caps = {};
        return ZU_OK;
    });
}

u32 ZU_ACAP_Open(const ZU_ACAP_OpenParams_t* params, u32* handle)
{
    return call("ZU_ACAP_Open", text("name=", params->pu8Name), [&](Context& context) {
        keep("ZU_ACAP_Open", ZU_ACAP_OpenParams_t{kept_string(params->pu8Name), params->u32Reserved});
        *handle = add_device(Kind::audio);
        context.note = "h=" + hex(*handle);
        return ZU_OK;
    });
}

u32 ZU_ACAP_Close(u32 handle)
{
    return ending_call("ZU_ACAP_Close", hex(handle), [&](Context& context) {
        return close_device(context, handle, Kind::audio, "ZU_ACAP_Close");
    });
}

u32 ZU_ACAP_RegisterCallback(u32 handle, const ZU_ACAP_CallbackParams_t* params, u64* id)
{
    return call("ZU_ACAP_RegisterCallback", text(hex(handle), ", mask=", params->u32EventMask),
                [&](Context& context) { return register_callback(context, handle, *params, id); });
}

u32 ZU_ACAP_UnRegisterCallback(u32 handle, const ZU_ACAP_CallbackParams_t* params)
{
    return ending_call("ZU_ACAP_UnRegisterCallback", text(hex(handle), ", id=", hex(params->u64CallbackId)),
                       [&](Context& context) {
                           keep("ZU_ACAP_UnRegisterCallback", *params);
                           return remove_registration(context, handle, Kind::audio, params->u64CallbackId,
                                                      "ZU_ACAP_UnRegisterCallback");
                       });
}

u32 ZU_ACAP_SetVolume(u32 handle, u32 volume)
{
    return call("ZU_ACAP_SetVolume", text(hex(handle), ", ", volume), [&](Context&) {
        return live_device(handle, Kind::audio, "ZU_ACAP_SetVolume") ? ZU_OK : ZU_INVALID_ARGUMENT;
    });
}

u32 ZU_ACAP_Start(u32 handle, const ZU_ACAP_StartParams_t* params)
{
    return call("ZU_ACAP_Start", text(hex(handle), ", ", params->u8Reserved), [&](Context&) {
        return live_device(handle, Kind::audio, "ZU_ACAP_Start") ? ZU_OK : ZU_INVALID_ARGUMENT;
    });
}

u32 ZU_ACAP_Stop(u32 handle)
{
    return call("ZU_ACAP_Stop", hex(handle), [&](Context&) {
        return live_device(handle, Kind::audio, "ZU_ACAP_Stop") ? ZU_OK : ZU_INVALID_ARGUMENT;
    });
}

u32 ZU_ACAP_GetAttr(u32 handle, u32 type, u32 index, void* value)
{
    return call("ZU_ACAP_GetAttr", text(hex(handle), ", ", type, ", ", index), [&](Context& context) {
        if (!live_device(handle, Kind::audio, "ZU_ACAP_GetAttr") || type != ZU_ACAP_ATTR_BUFFER_LEVEL)
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
    return call("ZU_ACAP_Read", text(hex(handle), ", size=", request->u32Size), [&](Context& context) {
        if (!live_device(handle, Kind::audio, "ZU_ACAP_Read"))
            return ZU_INVALID_ARGUMENT;
        auto& audio = state().audio;
        const auto end =
            audio.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(request->u32Size, audio.size()));
        result->u32Size = static_cast<u32>(end - audio.begin());
        std::copy(audio.begin(), end, static_cast<u8*>(request->pBuffer));
        audio.erase(audio.begin(), end);
        result->u32Size = Middleware::instance().settings.claimed_read.value_or(result->u32Size);
        context.note = text("read=", result->u32Size);
        return ZU_OK;
    });
}
}
