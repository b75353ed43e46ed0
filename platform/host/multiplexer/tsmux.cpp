#include "base/handle_table.h"
#include "multiplexer/multiplexer.h"

#include <atomic>
#include <zu3/tsmux.h>

namespace zu3host {

namespace {

std::atomic<bool> initialised{false};

constexpr auto multiplexers = handle_table<Multiplexer, 0x600>;

/** Below this, packets are too far apart to keep the time references within 40 ms. */
constexpr uint32_t least_constant_rate = 500000;
constexpr size_t least_ring_packets = 64;

bool valid_params(const ZU_TSMUX_OpenParams_t& params)
{
    if (params.u32TsPacketSize != ts_packet_bytes &&
        params.u32TsPacketSize != timed_ts_packet_bytes) {
        HOST_LOGE("A transport-stream packet has 188 or 192 bytes, not %u.",
                  params.u32TsPacketSize);
        return false;
    }
    if (params.bCbrEnable && params.u32CbrBitrate < least_constant_rate) {
        HOST_LOGE("A constant rate of %u bit/s is too low for a stream; the least is %u.",
                  params.u32CbrBitrate, least_constant_rate);
        return false;
    }
    if (params.u32OutBufSize / params.u32TsPacketSize < least_ring_packets) {
        HOST_LOGE("The multiplexer's output buffer of %u bytes is too small.",
                  params.u32OutBufSize);
        return false;
    }
    if (!valid_pid(params.u16Pid0) || !valid_pid(params.u16Pid3) ||
        params.u16Pid0 == params.u16Pid3) {
        HOST_LOGE("0x%x and 0x%x cannot be the PIDs of map and time.", params.u16Pid0,
                  params.u16Pid3);
        return false;
    }
    return true;
}

uint32_t set_attribute(Multiplexer& multiplexer, uint32_t type, const void* value)
{
    switch (type) {
    case E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL:
        return multiplexer.set_interleaving(*static_cast<const ZU_TSMUX_AvInterleaving_t*>(value));
    case E_ZU_TSMUX_PARAMTYPE_IGNORE_REMAIN_MEDIA_DATA_WHEN_STOP:
        return multiplexer.set_ignore_remain(*static_cast<const u8*>(value) != 0);
    case E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL:
        return multiplexer.set_continuity(*static_cast<const ZU_TSMUX_PtsContinuity_t*>(value));
    default:
        HOST_LOGE("The multiplexer has no attribute 0x%x.", type);
        return ZU_INVALID_ARGUMENT;
    }
}

} // namespace

} // namespace zu3host

using namespace zu3host;

HOST_EXPORT u32 ZU_TSMUX_Init(const ZU_TSMUX_InitParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return initialised.exchange(true) ? ZU_ALREADY_INITIALISED : ZU_OK;
}

HOST_EXPORT u32 ZU_TSMUX_DeInit(void)
{
    return initialised.exchange(false) ? ZU_OK : ZU_FAILURE;
}

HOST_EXPORT u32 ZU_TSMUX_Open(const ZU_TSMUX_OpenParams_t* pstParams, u32* pu32Handle)
{
    if (!pstParams || !pu32Handle)
        return ZU_INVALID_ARGUMENT;
    if (!initialised) {
        HOST_LOGE("The multiplexer module is not initialised.");
        return ZU_FAILURE;
    }
    return at_border(__func__, [=]() -> u32 {
        if (!valid_params(*pstParams))
            return ZU_FAILURE;
        auto multiplexer = Multiplexer::open(*pstParams);
        if (!multiplexer)
            return ZU_FAILURE;
        zu3host::store_output(pu32Handle, multiplexers().add(std::move(multiplexer)));
        return ZU_OK;
    });
}

HOST_EXPORT u32 ZU_TSMUX_Close(u32 u32Handle)
{
    return at_border(__func__, [=]() -> u32 {
        const auto multiplexer = multiplexers().remove(u32Handle);
        if (!multiplexer)
            return ZU_INVALID_ARGUMENT;
        multiplexer->close();
        return ZU_OK;
    });
}

HOST_EXPORT u32 ZU_TSMUX_RegisterCallback(u32 u32Handle, const ZU_TSMUX_CallbackParams_t* pstParams,
                                          u64* pu64CallbackId)
{
    if (!pstParams || !pstParams->pfnCallback || !pu64CallbackId)
        return ZU_INVALID_ARGUMENT;
    return with_object(__func__, multiplexers, u32Handle, [&](Multiplexer& multiplexer) -> u32 {
        const u64 id = multiplexer.callback().set(*pstParams);
        if (id == 0) {
            HOST_LOGE("The multiplexer already has a callback.");
            return ZU_FAILURE;
        }
        *pu64CallbackId = id;
        return ZU_OK;
    });
}

HOST_EXPORT u32 ZU_TSMUX_UnRegisterCallback(u32 u32Handle,
                                            const ZU_TSMUX_CallbackParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return with_object(__func__, multiplexers, u32Handle, [&](Multiplexer& multiplexer) -> u32 {
        return multiplexer.callback().remove(pstParams->u64CallbackId) ? ZU_OK
                                                                       : ZU_INVALID_ARGUMENT;
    });
}

HOST_EXPORT u32 ZU_TSMUX_SetAttr(u32 u32Handle, u32 u32Type, const void* pValue)
{
    if (!pValue)
        return ZU_INVALID_ARGUMENT;
    return with_object(__func__, multiplexers, u32Handle, [&](Multiplexer& multiplexer) {
        return set_attribute(multiplexer, u32Type, pValue);
    });
}

HOST_EXPORT u32 ZU_TSMUX_AttachMediaSource(u32 u32Handle,
                                           const ZU_TSMUX_MediaSourceParams_t* pstParams,
                                           u64* pu64MuxSrcId)
{
    if (!pstParams || !pu64MuxSrcId)
        return ZU_INVALID_ARGUMENT;
    return with_object(__func__, multiplexers, u32Handle, [&](Multiplexer& multiplexer) {
        u64 id = 0;
        const u32 result = multiplexer.attach(*pstParams, id);
        if (result == ZU_OK)
            zu3host::store_output(pu64MuxSrcId, id);
        return result;
    });
}

HOST_EXPORT u32 ZU_TSMUX_DetachMediaSource(u32 u32Handle, u64 u64MuxSrcId)
{
    return with_object(__func__, multiplexers, u32Handle,
                       [&](Multiplexer& multiplexer) { return multiplexer.detach(u64MuxSrcId); });
}

HOST_EXPORT u32 ZU_TSMUX_Start(u32 u32Handle, const ZU_TSMUX_StartParams_t* pstParams)
{
    if (!pstParams)
        return ZU_INVALID_ARGUMENT;
    return with_object(__func__, multiplexers, u32Handle,
                       [](Multiplexer& multiplexer) { return multiplexer.start(); });
}

HOST_EXPORT u32 ZU_TSMUX_Stop(u32 u32Handle)
{
    return with_object(__func__, multiplexers, u32Handle,
                       [](Multiplexer& multiplexer) { return multiplexer.stop(); });
}

HOST_EXPORT u32 ZU_TSMUX_PushMediaData(u32 u32Handle, const ZU_TSMUX_MediaData_t* pstData)
{
    if (!pstData)
        return ZU_INVALID_ARGUMENT;
    return with_object(__func__, multiplexers, u32Handle, [&](Multiplexer& multiplexer) {
        return multiplexer.push(u32Handle, *pstData);
    });
}

HOST_EXPORT u32 ZU_TSMUX_CopyOutputStream(u32 u32Handle, void* pDst, u32 u32MaxSize,
                                          u32* pu32Copied)
{
    if (!pDst || !pu32Copied)
        return ZU_INVALID_ARGUMENT;
    return with_object(__func__, multiplexers, u32Handle, [&](Multiplexer& multiplexer) {
        return multiplexer.copy_out(static_cast<u8*>(pDst), u32MaxSize, *pu32Copied);
    });
}
