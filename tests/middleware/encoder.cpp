#include "middleware/device_calls.h"

using namespace middleware;

namespace middleware {

std::vector<ZU_VENC_InputBuffer_t> Middleware::encoder_inputs() const
{
    const Lock lock(state().mutex);
    return state().inputs;
}

Bytes Middleware::last_encoder_input() const
{
    const Lock lock(state().mutex);
    return state().last_input;
}

} // namespace middleware

namespace {

u32 take(Device& device, const ZU_VENC_InputBuffer_t& buffer)
{
    State& s = state();
    s.inputs.push_back(buffer);
    if (buffer.bEntireInject || !buffer.pu8Data)
        return ZU_OK;
    const auto lent = device.lent.find(buffer.pu8Data);
    if (lent == device.lent.end()) {
        problem("an encoder input is completed that was not lent");
        return ZU_INVALID_ARGUMENT;
    }
    s.inputs.back().pu8Data = nullptr;
    s.last_input.assign(buffer.pu8Data, buffer.pu8Data + buffer.u32DataSize);
    device.lent.erase(lent);
    return ZU_OK;
}

} // namespace

extern "C" {

u32 ZU_VENC_Init(const ZU_VENC_InitParams_t* params)
{
    return init_call("ZU_VENC", *params);
}

u32 ZU_VENC_DeInit(void)
{
    return deinit_call("ZU_VENC");
}

u32 ZU_VENC_GetCaps(ZU_VENC_Caps_t* caps)
{
    return caps_call("ZU_VENC_GetCaps", caps, Middleware::instance().settings.encoder);
}

u32 ZU_VENC_Open(const ZU_VENC_OpenParams_t* p, u32* handle)
{
    return open_call("ZU_VENC_Open", Kind::encoder,
                     text("name=", p->pu8Name, " color=", p->eColorFormat, " ", p->u32Width, "x",
                          p->u32Height, "@", p->u32FrameRate, " bitrate=", p->u32Bitrate,
                          " profile=", p->u32Profile, " level=", p->u32Level, " codec=", p->eCodecType),
                     handle, [&](Device& device) {
                         keep("ZU_VENC_Open", *p);
                         device.encoder_callback = p->pfnCallback;
                         device.user_data = p->pUserData;
                     });
}

u32 ZU_VENC_Close(u32 handle)
{
    return close_call("ZU_VENC_Close", Kind::encoder, handle);
}

u32 ZU_VENC_Start(u32 handle, const ZU_VENC_StartParams_t* params)
{
    return device_call("ZU_VENC_Start", Kind::encoder, handle, text(", ", params->u8Reserved));
}

u32 ZU_VENC_Stop(u32 handle)
{
    return device_call("ZU_VENC_Stop", Kind::encoder, handle);
}

u32 ZU_VENC_QueryBuffer(u32 handle, ZU_VENC_InputBuffer_t* buffer)
{
    return device_call("ZU_VENC_QueryBuffer", Kind::encoder, handle, "",
                       [&](Context&, Device& device) -> u32 {
                           constexpr size_t inputs = 4;
                           if (device.lent.size() >= inputs)
                               return ZU_FAILURE;
                           buffer->u32DataSize = Middleware::instance().settings.encoder_input_size;
                           auto memory = std::make_unique<u8[]>(buffer->u32DataSize);
                           buffer->pu8Data = memory.get();
                           device.lent[buffer->pu8Data] = std::move(memory);
                           return ZU_OK;
                       });
}

u32 ZU_VENC_WriteBufferComplete(u32 handle, const ZU_VENC_InputBuffer_t* buffer)
{
    return device_call("ZU_VENC_WriteBufferComplete", Kind::encoder, handle,
                       text(", index=", buffer->u32InBufIndex, " size=", buffer->u32DataSize,
                            " pts=", buffer->u64Pts, " inject=", buffer->bEntireInject,
                            " key=", buffer->bRequestIFrame),
                       [&](Context&, Device& device) { return take(device, *buffer); });
}

u32 ZU_VENC_QueryEntireInjectBuffer(u32 handle, ZU_VENC_EntireInjectBuf_t* buffer)
{
    return device_call(
        "ZU_VENC_QueryEntireInjectBuffer", Kind::encoder, handle, "", [&](Context& context, Device&) {
            const InjectBuffer& inject = state().inject;
            buffer->u32VirtAddr = static_cast<u32>(reinterpret_cast<uintptr_t>(inject.address));
            buffer->u32Size = Middleware::instance().settings.claimed_inject_size.value_or(inject.size);
            context.note = text("size=", buffer->u32Size);
            return ZU_OK;
        });
}

u32 ZU_VENC_SetAttr(u32 handle, u32 type, const void* value)
{
    const u32 number = *static_cast<const u32*>(value);
    return static_cast<u32>(perform(
        false, "ZU_VENC_SetAttr", hex(type), text(hex(handle), ", ", hex(type), ", ", number), [&](Context&) {
            keep("ZU_VENC_SetAttr:" + hex(type), number);
            return live_device(handle, Kind::encoder, "ZU_VENC_SetAttr") ? ZU_OK : ZU_INVALID_ARGUMENT;
        }));
}
}
