/** The calls that all kinds of devices have alike. */
#pragma once

#include "middleware/state.h"

namespace middleware {

template <class Params> u32 init_call(const std::string& module, const Params& params)
{
    return call(module + "_Init", text(params.u8Reserved),
                [&](Context& context) { return initialise(module, context); });
}

inline u32 deinit_call(const std::string& module)
{
    return ending_call(module + "_DeInit", "",
                       [&](Context& context) { return deinitialise(module, context); });
}

template <class Caps> u32 caps_call(const char* function, Caps* caps, const Caps& value)
{
    return call(function, "", [&](Context&) {
        *caps = value;
        return ZU_OK;
    });
}

/** Opens a device; `open` fills in what is its kind's. */
template <class Open>
u32 open_call(const char* function, Kind kind, std::string arguments, u32* handle, Open open)
{
    return call(function, std::move(arguments), [&](Context& context) {
        *handle = add_device(kind);
        open(state().devices.at(*handle));
        context.note = "h=" + hex(*handle);
        return ZU_OK;
    });
}

inline u32 close_call(const char* function, Kind kind, u32 handle)
{
    return ending_call(function, hex(handle),
                       [&](Context& context) { return close_device(context, handle, kind, function); });
}

/** A call on a device that must be alive; `effect` gets it. `more` follows the handle in the log. */
template <class Effect>
u32 device_call(const char* function, Kind kind, u32 handle, const std::string& more, Effect effect)
{
    return call(function, hex(handle) + more, [&](Context& context) -> u32 {
        Device* const device = live_device(handle, kind, function);
        return device ? static_cast<u32>(effect(context, *device)) : u32{ZU_INVALID_ARGUMENT};
    });
}

inline u32 device_call(const char* function, Kind kind, u32 handle, const std::string& more = "")
{
    return device_call(function, kind, handle, more, [](Context&, Device&) { return ZU_OK; });
}

template <class Params, class Callback>
u32 register_call(const char* function, Kind kind, u32 handle, const Params& params,
                  Callback Device::*callback, u64* id)
{
    return device_call(function, kind, handle, text(", mask=", params.u32EventMask),
                       [&](Context& context, Device& device) {
                           device.*callback = params.pfnCallback;
                           device.user_data = params.pUserData;
                           device.registration = *id = new_registration();
                           context.note = "id=" + hex(*id);
                           return ZU_OK;
                       });
}

inline u32 unregister_call(const char* function, Kind kind, u32 handle, u64 id)
{
    return ending_call(function, text(hex(handle), ", id=", hex(id)), [&](Context& context) {
        return remove_registration(context, handle, kind, id, function);
    });
}

/** Moves bytes from a queue to a destination; what is told of their number may be set to a lie. */
inline u32 move_out(std::deque<u8>& queue, void* destination, u32 size, std::optional<u32> claim)
{
    const auto end = queue.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(size, queue.size()));
    const auto count = static_cast<u32>(end - queue.begin());
    std::copy(queue.begin(), end, static_cast<u8*>(destination));
    queue.erase(queue.begin(), end);
    return claim.value_or(count);
}

} // namespace middleware
