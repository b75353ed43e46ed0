#include "middleware/device_calls.h"

using namespace middleware;

namespace {

// beyond 32 bits, so that a cut id is seen
constexpr u64 first_source = 0x1'0000'0051;

std::string attribute(u32 type, const void* value)
{
    if (type == E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL) {
        const auto& record = *static_cast<const ZU_TSMUX_AvInterleaving_t*>(value);
        return text("{", record.bEnable, ", ", record.u32LeavingTimeMs, "}");
    }
    if (type == E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL) {
        const auto& record = *static_cast<const ZU_TSMUX_PtsContinuity_t*>(value);
        return text("{", record.bEnable, ", ", record.u64MaxForward, ", ", record.u64MaxBackward,
                    "}");
    }
    return text(*static_cast<const u8*>(value));
}

} // namespace

extern "C" {

u32 ZU_TSMUX_Open(const ZU_TSMUX_OpenParams_t* p, u32* handle)
{
    return open_call(
        __func__, Kind::multiplexer,
        text("packet=", p->u32TsPacketSize, " cbr=", p->bCbrEnable, " rate=", p->u32CbrBitrate,
             " size=", p->u32OutBufSize),
        handle, [&](Device&) {
            state().last.multiplexer = *p;
            if (reinterpret_cast<uintptr_t>(state().output_region.data()) != p->u32OutBufVa)
                problem("ZU_TSMUX_Open is given an output buffer that is not the memory layout's");
        });
}

u32 ZU_TSMUX_SetAttr(u32 handle, u32 type, const void* value)
{
    return attribute_call(__func__, Kind::multiplexer, handle, type, attribute(type, value));
}

u32 ZU_TSMUX_AttachMediaSource(u32 handle, const ZU_TSMUX_MediaSourceParams_t* params, u64* source)
{
    return device_call(__func__, Kind::multiplexer, handle,
                       text(", type=", hex(params->eStreamType), " pid=", hex(params->u16Pid),
                            " stream=", hex(params->u8StreamId)),
                       [&](Context& context, Device& device) {
                           store_output(source, u64{first_source + state().next_source++});
                           device.sources[*source] = *params;
                           context.note = "id=" + hex(*source);
                           return ZU_OK;
                       });
}

u32 ZU_TSMUX_DetachMediaSource(u32 handle, u64 source)
{
    return ending_device_call(
        __func__, Kind::multiplexer, handle, ", " + hex(source), [&](Context&, Device& device) {
            if (device.sources.erase(source) == 1)
                return ZU_OK;
            problem(text("media source ", hex(source), " is detached but was not attached"));
            return ZU_INVALID_ARGUMENT;
        });
}

u32 ZU_TSMUX_PushMediaData(u32 handle, const ZU_TSMUX_MediaData_t* data)
{
    const std::string pts = data->u64Pts == ~u64{0} ? "none" : text(data->u64Pts);
    const std::string more =
        text(", ", hex(data->u64MuxSrcId), " size=", data->u32DataSize, " pts=", pts);
    if (handle == 0) // an encoder that runs without a multiplexer is no fault
        return call(__func__, hex(handle) + more, [](Context&) { return ZU_INVALID_ARGUMENT; });
    return device_call(__func__, Kind::multiplexer, handle, more, [&](Context&, Device& device) {
        if (!device.sources.contains(data->u64MuxSrcId)) {
            if (late_callback_depth == 0 && data->u64MuxSrcId != 0)
                problem(text("data is pushed to media source ", hex(data->u64MuxSrcId),
                             ", which is not attached"));
            return ZU_INVALID_ARGUMENT;
        }
        const Bytes bytes(data->pu8Data, data->pu8Data + data->u32DataSize);
        state().pushed.push_back({data->u64MuxSrcId, bytes, data->u64Pts});
        return ZU_OK;
    });
}

u32 ZU_TSMUX_CopyOutputStream(u32 handle, void* destination, u32 size, u32* copied)
{
    return device_call(__func__, Kind::multiplexer, handle, text(", ", size),
                       [&](Context& context, Device&) {
                           *copied = move_out(state().output, destination, size,
                                              Middleware::instance().settings.claimed_copy);
                           context.note = text("copied=", *copied);
                           return ZU_OK;
                       });
}
}
