#include <algorithm>

#include "middleware/state.h"

using namespace middleware;

namespace middleware {

void Middleware::queue_output(const Bytes& bytes)
{
    const Lock lock(state().mutex);
    state().output.insert(state().output.end(), bytes.begin(), bytes.end());
}

std::vector<PushedFrame> Middleware::pushed() const
{
    const Lock lock(state().mutex);
    return state().pushed;
}

} // namespace middleware

namespace {

constexpr u64 first_source = 0x1'0000'0051; // beyond 32 bits, so that a cut id is seen

Device* live(u32 handle, const char* function)
{
    return live_device(handle, Kind::multiplexer, function);
}

u32 open(Context& context, const ZU_TSMUX_OpenParams_t& params, u32* handle)
{
    keep("ZU_TSMUX_Open", params);
    if (reinterpret_cast<uintptr_t>(state().output_region) != params.u32OutBufVa)
        problem("ZU_TSMUX_Open is given an output buffer that is not the memory layout's");
    *handle = add_device(Kind::multiplexer);
    context.note = "h=" + hex(*handle);
    return ZU_OK;
}

u32 register_callback(Context& context, u32 handle, const ZU_TSMUX_CallbackParams_t& params, u64* id)
{
    keep("ZU_TSMUX_RegisterCallback", params);
    Device* const device = live(handle, "ZU_TSMUX_RegisterCallback");
    if (!device)
        return ZU_INVALID_ARGUMENT;
    device->multiplexer_callback = params.pfnCallback;
    device->user_data = params.pUserData;
    device->registration = *id = new_registration();
    context.note = "id=" + hex(*id);
    return ZU_OK;
}

u32 attach(Context& context, u32 handle, const ZU_TSMUX_MediaSourceParams_t& params, u64* source)
{
    keep("ZU_TSMUX_AttachMediaSource", params);
    Device* const device = live(handle, "ZU_TSMUX_AttachMediaSource");
    if (!device)
        return ZU_INVALID_ARGUMENT;
    *source = first_source + state().next_source++;
    device->sources[*source] = params;
    context.note = "id=" + hex(*source);
    return ZU_OK;
}

u32 detach(u32 handle, u64 source)
{
    Device* const device = live(handle, "ZU_TSMUX_DetachMediaSource");
    if (!device)
        return ZU_INVALID_ARGUMENT;
    if (device->sources.erase(source) == 1)
        return ZU_OK;
    problem(text("media source ", hex(source), " is detached but was not attached"));
    return ZU_INVALID_ARGUMENT;
}

u32 push(u32 handle, const ZU_TSMUX_MediaData_t& data)
{
    Device* const device = live(handle, "ZU_TSMUX_PushMediaData");
    if (!device)
        return ZU_INVALID_ARGUMENT;
    if (!device->sources.contains(data.u64MuxSrcId)) {
        if (late_callback_depth == 0)
            problem(
                text("data is pushed to media source ", hex(data.u64MuxSrcId), ", which is not attached"));
        return ZU_INVALID_ARGUMENT;
    }
    state().pushed.push_back(
        {data.u64MuxSrcId, Bytes(data.pu8Data, data.pu8Data + data.u32DataSize), data.u64Pts});
    return ZU_OK;
}

u32 copy_output(Context& context, u32 handle, void* destination, u32 size, u32* copied)
{
    if (!live(handle, "ZU_TSMUX_CopyOutputStream"))
        return ZU_INVALID_ARGUMENT;
    auto& output = state().output;
    const auto end = output.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(size, output.size()));
    *copied = static_cast<u32>(end - output.begin());
    std::copy(output.begin(), end, static_cast<u8*>(destination));
    output.erase(output.begin(), end);
    *copied = Middleware::instance().settings.claimed_copy.value_or(*copied);
    context.note = text("copied=", *copied);
    return ZU_OK;
}

/** The value as text; kept as a record too. */
std::string attribute(u32 type, const void* value)
{
    const Lock lock(state().mutex);
    const std::string name = "ZU_TSMUX_SetAttr:" + hex(type);
    if (type == E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL) {
        const auto& record = *static_cast<const ZU_TSMUX_AvInterleaving_t*>(value);
        keep(name, record);
        return text("{", record.bEnable, ", ", record.u32LeavingTimeMs, "}");
    }
    if (type == E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL) {
        const auto& record = *static_cast<const ZU_TSMUX_PtsContinuity_t*>(value);
        keep(name, record);
        return text("{", record.bEnable, ", ", record.u64MaxForward, ", ", record.u64MaxBackward, "}");
    }
    keep(name, *static_cast<const u8*>(value));
    return text(*static_cast<const u8*>(value));
}

} // namespace

extern "C" {

u32 ZU_TSMUX_Init(const ZU_TSMUX_InitParams_t* params)
{
    return call("ZU_TSMUX_Init", text(params->u8Reserved),
                [](Context& context) { return initialise("ZU_TSMUX", context); });
}

u32 ZU_TSMUX_DeInit(void)
{
    return ending_call("ZU_TSMUX_DeInit", "",
                       [](Context& context) { return deinitialise("ZU_TSMUX", context); });
}

u32 ZU_TSMUX_Open(const ZU_TSMUX_OpenParams_t* p, u32* handle)
{
    return call("ZU_TSMUX_Open",
                text("packet=", p->u32TsPacketSize, " cbr=", p->bCbrEnable, " rate=", p->u32CbrBitrate,
                     " size=", p->u32OutBufSize),
                [&](Context& context) { return open(context, *p, handle); });
}

u32 ZU_TSMUX_Close(u32 handle)
{
    return ending_call("ZU_TSMUX_Close", hex(handle), [&](Context& context) {
        return close_device(context, handle, Kind::multiplexer, "ZU_TSMUX_Close");
    });
}

u32 ZU_TSMUX_RegisterCallback(u32 handle, const ZU_TSMUX_CallbackParams_t* params, u64* id)
{
    return call("ZU_TSMUX_RegisterCallback", text(hex(handle), ", mask=", params->u32EventMask),
                [&](Context& context) { return register_callback(context, handle, *params, id); });
}

u32 ZU_TSMUX_UnRegisterCallback(u32 handle, const ZU_TSMUX_CallbackParams_t* params)
{
    return ending_call("ZU_TSMUX_UnRegisterCallback", text(hex(handle), ", id=", hex(params->u64CallbackId)),
                       [&](Context& context) {
                           keep("ZU_TSMUX_UnRegisterCallback", *params);
                           return remove_registration(context, handle, Kind::multiplexer,
                                                      params->u64CallbackId, "ZU_TSMUX_UnRegisterCallback");
                       });
}

u32 ZU_TSMUX_SetAttr(u32 handle, u32 type, const void* value)
{
    return static_cast<u32>(perform(false, "ZU_TSMUX_SetAttr", hex(type),
                                    text(hex(handle), ", ", hex(type), ", ", attribute(type, value)),
                                    [&](Context&) {
                                        // Interleaving is also switched off where no multiplexer was opened
                                        // yet.
                                        const bool good = handle != 0 && live(handle, "ZU_TSMUX_SetAttr");
                                        return good ? ZU_OK : ZU_INVALID_ARGUMENT;
                                    }));
}

u32 ZU_TSMUX_AttachMediaSource(u32 handle, const ZU_TSMUX_MediaSourceParams_t* params, u64* source)
{
    return call("ZU_TSMUX_AttachMediaSource",
                text(hex(handle), ", type=", hex(params->eStreamType), " pid=", hex(params->u16Pid),
                     " stream=", hex(params->u8StreamId)),
                [&](Context& context) { return attach(context, handle, *params, source); });
}

u32 ZU_TSMUX_DetachMediaSource(u32 handle, u64 source)
{
    return ending_call("ZU_TSMUX_DetachMediaSource", text(hex(handle), ", ", hex(source)),
                       [&](Context&) { return detach(handle, source); });
}

u32 ZU_TSMUX_Start(u32 handle, const ZU_TSMUX_StartParams_t* params)
{
    return call("ZU_TSMUX_Start", text(hex(handle), ", ", params->u8Reserved),
                [&](Context&) { return live(handle, "ZU_TSMUX_Start") ? ZU_OK : ZU_INVALID_ARGUMENT; });
}

u32 ZU_TSMUX_Stop(u32 handle)
{
    return call("ZU_TSMUX_Stop", hex(handle),
                [&](Context&) { return live(handle, "ZU_TSMUX_Stop") ? ZU_OK : ZU_INVALID_ARGUMENT; });
}

u32 ZU_TSMUX_PushMediaData(u32 handle, const ZU_TSMUX_MediaData_t* data)
{
    const std::string pts = data->u64Pts == ~u64{0} ? "none" : text(data->u64Pts);
    return call("ZU_TSMUX_PushMediaData",
                text(hex(handle), ", ", hex(data->u64MuxSrcId), " size=", data->u32DataSize, " pts=", pts),
                [&](Context&) { return push(handle, *data); });
}

u32 ZU_TSMUX_CopyOutputStream(u32 handle, void* destination, u32 size, u32* copied)
{
    return call("ZU_TSMUX_CopyOutputStream", text(hex(handle), ", ", size),
                [&](Context& context) { return copy_output(context, handle, destination, size, copied); });
}
}
