#include "middleware/device_calls.h"

using namespace middleware;

extern "C" {

u32 ZU_ACAP_Open(const ZU_ACAP_OpenParams_t* params, u32* handle)
{
    return open_call(__func__, Kind::audio, text("name=", params->pu8Name), handle, [](Device&) {});
}

u32 ZU_ACAP_SetVolume(u32 handle, u32 volume)
{
    return device_call(__func__, Kind::audio, handle, text(", ", volume));
}

u32 ZU_ACAP_GetAttr(u32 handle, u32 type, u32 index, void* value)
{
    return device_call(__func__, Kind::audio, handle, text(", ", type, ", ", index),
                       [&](Context& context, Device&) {
                           if (type != ZU_ACAP_ATTR_BUFFER_LEVEL)
                               return ZU_INVALID_ARGUMENT;
                           const u32 queued = static_cast<u32>(state().audio.size());
                           const u32 level =
                               Middleware::instance().settings.audio_level.value_or(queued);
                           *static_cast<u32*>(value) = level;
                           context.note = text("level=", level);
                           return ZU_OK;
                       });
}

u32 ZU_ACAP_Read(u32 handle, const ZU_ACAP_ReadRequest_t* request, ZU_ACAP_ReadResult_t* result)
{
    return device_call(__func__, Kind::audio, handle, text(", size=", request->u32Size),
                       [&](Context& context, Device&) {
                           result->u32Size =
                               move_out(state().audio, request->pBuffer, request->u32Size,
                                        Middleware::instance().settings.claimed_read);
                           context.note = text("read=", result->u32Size);
                           return ZU_OK;
                       });
}
}
