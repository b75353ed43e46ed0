#include "middleware/state.h"

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

u32 open(Context& context, const ZU_VENC_OpenParams_t& params, u32* handle)
{
    ZU_VENC_OpenParams_t copy = params;
    copy.pu8Name = kept_string(params.pu8Name);
    keep("ZU_VENC_Open", copy);
    *handle = add_device(Kind::encoder);
    Device& device = state().devices.at(*handle);
    device.encoder_callback = params.pfnCallback;
    device.user_data = params.pUserData;
    context.note = "h=" + hex(*handle);
    return ZU_OK;
}

u32 lend(u32 handle, ZU_VENC_InputBuffer_t& buffer)
{
    Device* const device = live_device(handle, Kind::encoder, "ZU_VENC_QueryBuffer");
    if (!device)
        return ZU_INVALID_ARGUMENT;
    const Middleware::Settings& settings = Middleware::instance().settings;
    if (device->lent.size() >= settings.encoder_inputs_free)
        return ZU_FAILURE;
    auto memory = std::make_unique<u8[]>(settings.encoder_input_size);
    buffer.pu8Data = memory.get();
    buffer.u32DataSize = settings.encoder_input_size;
    device->lent[buffer.pu8Data] = std::move(memory);
    return ZU_OK;
}

u32 take(u32 handle, const ZU_VENC_InputBuffer_t& buffer)
{
    State& s = state();
    Device* const device = live_device(handle, Kind::encoder, "ZU_VENC_WriteBufferComplete");
    if (!device)
        return ZU_INVALID_ARGUMENT;
    s.inputs.push_back(buffer);
    if (buffer.bEntireInject || !buffer.pu8Data)
        return ZU_OK;
    const auto lent = device->lent.find(buffer.pu8Data);
    if (lent == device->lent.end()) {
        problem("an encoder input is completed that was not lent");
        return ZU_INVALID_ARGUMENT;
    }
    s.inputs.back().pu8Data = nullptr;
    s.last_input.assign(buffer.pu8Data, buffer.pu8Data + buffer.u32DataSize);
    device->lent.erase(lent);
    return ZU_OK;
}

} // namespace

extern "C" {

u32 ZU_VENC_Init(const ZU_VENC_InitParams_t* params)
{
    return call("ZU_VENC_Init", text(params->u8Reserved),
                [](Context& context) { return initialise("ZU_VENC", context); });
}

u32 ZU_VENC_DeInit(void)
{
    return ending_call("ZU_VENC_DeInit", "",
                       [](Context& context) { return deinitialise("ZU_VENC", context); });
}

u32 ZU_VENC_GetCaps(ZU_VENC_Caps_t* caps)
{
    return call("ZU_VENC_GetCaps", "", [&](Context&) {
        *caps = Middleware::instance().settings.encoder;
        return ZU_OK;
    });
}

u32 ZU_VENC_Open(const ZU_VENC_OpenParams_t* p, u32* handle)
{
    return call("ZU_VENC_Open",
                text("name=", p->pu8Name, " color=", p->eColorFormat, " ", p->u32Width, "x", p->u32Height,
                     "@", p->u32FrameRate, " bitrate=", p->u32Bitrate, " profile=", p->u32Profile,
                     " level=", p->u32Level, " codec=", p->eCodecType),
                [&](Context& context) { return open(context, *p, handle); });
}

u32 ZU_VENC_Close(u32 handle)
{
    return ending_call("ZU_VENC_Close", hex(handle), [&](Context& context) {
        return close_device(context, handle, Kind::encoder, "ZU_VENC_Close");
    });
}

u32 ZU_VENC_Start(u32 handle, const ZU_VENC_StartParams_t* params)
{
    return call("ZU_VENC_Start", text(hex(handle), ", ", params->u8Reserved), [&](Context&) {
        return live_device(handle, Kind::encoder, "ZU_VENC_Start") ? ZU_OK : ZU_INVALID_ARGUMENT;
    });
}

u32 ZU_VENC_Stop(u32 handle)
{
    return call("ZU_VENC_Stop", hex(handle), [&](Context&) {
        return live_device(handle, Kind::encoder, "ZU_VENC_Stop") ? ZU_OK : ZU_INVALID_ARGUMENT;
    });
}

u32 ZU_VENC_QueryBuffer(u32 handle, ZU_VENC_InputBuffer_t* buffer)
{
    return call("ZU_VENC_QueryBuffer", hex(handle), [&](Context&) { return lend(handle, *buffer); });
}

u32 ZU_VENC_WriteBufferComplete(u32 handle, const ZU_VENC_InputBuffer_t* buffer)
{
    return call("ZU_VENC_WriteBufferComplete",
                text(hex(handle), ", index=", buffer->u32InBufIndex, " size=", buffer->u32DataSize, " pts=",
                     buffer->u64Pts, " inject=", buffer->bEntireInject, " key=", buffer->bRequestIFrame),
                [&](Context&) { return take(handle, *buffer); });
}

u32 ZU_VENC_QueryEntireInjectBuffer(u32 handle, ZU_VENC_EntireInjectBuf_t* buffer)
{
    return call("ZU_VENC_QueryEntireInjectBuffer", hex(handle), [&](Context& context) {
        if (!live_device(handle, Kind::encoder, "ZU_VENC_QueryEntireInjectBuffer"))
            return ZU_INVALID_ARGUMENT;
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
            const bool good = live_device(handle, Kind::encoder, "ZU_VENC_SetAttr");
            return good ? ZU_OK : ZU_INVALID_ARGUMENT;
        }));
}
}
