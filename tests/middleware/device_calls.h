/** The frames of calls on devices. */
#pragma once

#include "middleware/contract_call.h"

namespace middleware {

/** Opens a device; `open` fills in what is its kind's. */
template <class Open>
u32 open_call(const char* function, Kind kind, std::string arguments, u32* handle, Open open)
{
    return call(function, std::move(arguments), [&](Context& context) {
        State& s = state();
        // Fifteen of a kind differ in the last digit; later ones differ from other kinds further
        // up.
        u32& next = s.next_handle.try_emplace(kind, facts(kind).first_handle).first->second;
        store_output(handle, s.last_of_kind[kind] = next++);
        if ((next & 0xF) == 0)
            next += 0x100 - 0xF;
        s.devices[*handle].kind = kind;
        open(s.devices[*handle]);
        context.note = "h=" + hex(*handle);
        return ZU_OK;
    });
}

/** A call on a device that must be alive; `more` follows the handle in the log. */
template <class Effect>
u32 device_call(const char* function, Kind kind, u32 handle, const std::string& more, Effect effect,
                bool ends = false)
{
    return perform(ends, function, "", hex(handle) + more, [&](Context& context) -> u32 {
        Device* const device = live_device(handle, kind, function);
        return device ? static_cast<u32>(effect(context, *device)) : u32{ZU_INVALID_ARGUMENT};
    });
}

inline u32 device_call(const char* function, Kind kind, u32 handle, const std::string& more = "")
{
    return device_call(function, kind, handle, more, [](Context&, Device&) { return ZU_OK; });
}

/** One that ends something, even if it is scripted to fail. */
template <class Effect>
u32 ending_device_call(const char* function, Kind kind, u32 handle, const std::string& more,
                       Effect effect)
{
    return device_call(function, kind, handle, more, effect, true);
}

/** Sets an attribute; scripts know the call also by the attribute's type. */
inline u32 attribute_call(const char* function, Kind kind, u32 handle, u32 type,
                          const std::string& value)
{
    return perform(
        false, function, hex(type), text(hex(handle), ", ", hex(type), ", ", value), [&](Context&) {
            // Interleaving is switched off even if no multiplexer was opened yet.
            const bool none = kind == Kind::multiplexer && handle == 0;
            return !none && live_device(handle, kind, function) ? ZU_OK : ZU_INVALID_ARGUMENT;
        });
}

/** The callback as its device calls it, on whatever it registered. */
template <class Record>
Callback bound(u32 (*function)(s32, u32, Record*, void*), u32 handle, void* user_data)
{
    return [=](u32 event, void* record) {
        return function(static_cast<s32>(handle), event, static_cast<Record*>(record), user_data);
    };
}

/** Moves bytes from a queue to a destination; the number told may be set to a lie. */
inline u32 move_out(std::deque<u8>& queue, void* destination, u32 size, std::optional<u32> claim)
{
    const auto end =
        queue.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(size, queue.size()));
    const auto count = static_cast<u32>(end - queue.begin());
    std::copy(queue.begin(), end, static_cast<u8*>(destination));
    queue.erase(queue.begin(), end);
    return claim.value_or(count);
}

} // namespace middleware
