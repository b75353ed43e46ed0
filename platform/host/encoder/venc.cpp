// The video encoder's contract functions: handles to objects, arguments checked.
#include "base/handle_table.h"
#include "encoder/encoder.h"

#include <atomic>
#include <zu3/venc.h>

using namespace zu3host;

namespace {

constexpr auto encoders = handle_table<Encoder, 0x300>;

std::atomic<bool> initialised{false};

} // namespace

HOST_EXPORT u32 ZU_VENC_Init(const ZU_VENC_InitParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return initialised.exchange(true) ? ZU_ALREADY_INITIALISED : ZU_OK;
}

HOST_EXPORT u32 ZU_VENC_DeInit(void)
{
    return initialised.exchange(false) ? ZU_OK : ZU_FAILURE;
}

HOST_EXPORT u32 ZU_VENC_GetCaps(ZU_VENC_Caps_t* pstCaps)
{
    if (!pstCaps)
        return ZU_INVALID_ARGUMENT;
    *pstCaps = {
        .u32MaxWidth = max_encoder_width,
        .u32MaxHeight = max_encoder_height,
        .u32MaxFrameRate = common::greatest_frame_rate,
        .u32CodecSupport = 1u << 0,
        .u32MemAlign = picture_alignment,
        .au8Reserved = {},
    };
    return ZU_OK;
}

HOST_EXPORT u32 ZU_VENC_Open(const ZU_VENC_OpenParams_t* pstParams, u32* pu32Handle)
{
    if (!pstParams || !pu32Handle)
        return ZU_INVALID_ARGUMENT;
    return at_border(__func__, [=]() -> u32 {
        auto encoder = Encoder::open(*pstParams);
        if (!encoder)
            return ZU_FAILURE;
        zu3host::store_output(pu32Handle, encoders().add(std::move(encoder)));
        return ZU_OK;
    });
}

HOST_EXPORT u32 ZU_VENC_Close(u32 u32Handle)
{
    return with_object(__func__, encoders, u32Handle, [=](Encoder& encoder) {
        const u32 result = encoder.close();
        if (result == ZU_OK)
            encoders().remove(u32Handle);
        return result;
    });
}

HOST_EXPORT u32 ZU_VENC_Start(u32 u32Handle, const ZU_VENC_StartParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return with_object(__func__, encoders, u32Handle,
                       [=](Encoder& encoder) { return encoder.start(u32Handle); });
}

HOST_EXPORT u32 ZU_VENC_Stop(u32 u32Handle)
{
    return with_object(__func__, encoders, u32Handle, [](Encoder& encoder) {
        encoder.stop();
        return u32{ZU_OK};
    });
}

HOST_EXPORT u32 ZU_VENC_QueryBuffer(u32 u32Handle, ZU_VENC_InputBuffer_t* pstBuffer)
{
    if (!pstBuffer)
        return ZU_INVALID_ARGUMENT;
    return with_object(__func__, encoders, u32Handle,
                       [=](Encoder& encoder) { return encoder.lend(*pstBuffer); });
}

HOST_EXPORT u32 ZU_VENC_WriteBufferComplete(u32 u32Handle, const ZU_VENC_InputBuffer_t* pstBuffer)
{
    if (!pstBuffer)
        return ZU_INVALID_ARGUMENT;
    return with_object(__func__, encoders, u32Handle,
                       [=](Encoder& encoder) { return encoder.accept(*pstBuffer); });
}

HOST_EXPORT u32 ZU_VENC_QueryEntireInjectBuffer(u32 u32Handle, ZU_VENC_EntireInjectBuf_t* pstBuffer)
{
    if (!pstBuffer)
        return ZU_INVALID_ARGUMENT;
    return with_object(__func__, encoders, u32Handle,
                       [=](Encoder& encoder) { return encoder.offer_inject_region(*pstBuffer); });
}

HOST_EXPORT u32 ZU_VENC_SetAttr(u32 u32Handle, u32 u32Type, const void* pValue)
{
    if (!pValue || u32Type != ZU_VENC_ATTR_BITRATE)
        return ZU_INVALID_ARGUMENT;
    const u32 bitrate = *static_cast<const u32*>(pValue);
    return with_object(__func__, encoders, u32Handle,
                       [=](Encoder& encoder) { return encoder.set_bitrate(bitrate); });
}
