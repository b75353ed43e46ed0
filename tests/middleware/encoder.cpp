#include "middleware/device_calls.h"

using namespace middleware;

extern "C" {

u32 ZU_VENC_Open(const ZU_VENC_OpenParams_t* p, u32* handle)
{
    return open_call(__func__, Kind::encoder,
                     text("name=", p->pu8Name, " color=", p->eColorFormat, " ", p->u32Width, "x",
                          p->u32Height, "@", p->u32FrameRate, " bitrate=", p->u32Bitrate,
                          " profile=", p->u32Profile, " level=", p->u32Level,
                          " codec=", p->eCodecType, " mask=", p->u32EventMask),
                     handle, [&](Device& device) {
                         state().last.encoder = *p;
                         device.callback = bound(p->pfnCallback, *handle, p->pUserData);
                     });
}

u32 ZU_VENC_QueryBuffer(u32 handle, ZU_VENC_InputBuffer_t* buffer)
{
    return device_call(__func__, Kind::encoder, handle, "", [&](Context&, Device& device) {
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
    return device_call(__func__, Kind::encoder, handle,
                       text(", index=", buffer->u32InBufIndex, " size=", buffer->u32DataSize,
                            " pts=", buffer->u64Pts, " inject=", buffer->bEntireInject,
                            " key=", buffer->bRequestIFrame),
                       [&](Context&, Device& device) {
                           State& s = state();
                           s.inputs.push_back(*buffer);
                           if (buffer->bEntireInject || !buffer->pu8Data)
                               return ZU_OK;
                           s.inputs.back().pu8Data = nullptr;
                           const auto lent = device.lent.find(buffer->pu8Data);
                           if (lent == device.lent.end()) {
                               problem("an encoder input is completed that was not lent");
                               return ZU_INVALID_ARGUMENT;
                           }
                           s.last_input.assign(buffer->pu8Data,
                                               buffer->pu8Data + buffer->u32DataSize);
                           device.lent.erase(lent);
                           return ZU_OK;
                       });
}

u32 ZU_VENC_QueryEntireInjectBuffer(u32 handle, ZU_VENC_EntireInjectBuf_t* buffer)
{
    return device_call(__func__, Kind::encoder, handle, "", [&](Context& context, Device&) {
        const InjectBuffer& inject = state().inject;
        buffer->u32VirtAddr = static_cast<u32>(reinterpret_cast<uintptr_t>(inject.address));
        buffer->u32Size = Middleware::instance().settings.claimed_inject_size.value_or(inject.size);
        context.note = text("size=", buffer->u32Size);
        return ZU_OK;
    });
}

u32 ZU_VENC_SetAttr(u32 handle, u32 type, const void* value)
{
    return attribute_call(__func__, Kind::encoder, handle, type,
                          text(*static_cast<const u32*>(value)));
}
}
