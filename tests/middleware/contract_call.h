/** The frame of every contract function, and what the parts of the double do for one another. */
#pragma once

#include "middleware/middleware.h"

namespace middleware {

/** Set during a callback of a closed device: its calls on dead handles are no fault. */
extern thread_local u32 late_callback_depth;
/** Set on tasks: their waits alone do not let time pass. */
extern thread_local bool task_thread;

/** Adds a sentence to the problems; the state's lock is held. */
void problem(std::string sentence);

/** For the effect of a call: the state's lock, held, and a note for the log behind the result. */
struct Context {
    Lock lock;
    // a call that ends something is scripted to fail
    bool refused;
    std::string note = {};
};

struct Ticket {
    size_t number;
    std::optional<s64> result = {};
    bool takes_effect = false;
    std::vector<std::function<void()>> before = {}, behind = {};
};

Ticket begin_call(const std::string& function, const std::string& variant, std::string arguments);
void end_call(const Ticket& ticket, s64 result, const std::string& note);

/** Frame of every contract function; `ends`: the effect runs even if the call is to fail. */
template <class Effect>
auto perform(bool ends, const std::string& function, const std::string& variant,
             std::string arguments, Effect&& effect)
{
    using Effected = decltype(effect(std::declval<Context&>()));
    using Result = std::conditional_t<std::is_enum_v<Effected>, u32, Effected>;
    const Ticket ticket = begin_call(function, variant, std::move(arguments));
    for (const auto& hook : ticket.before)
        hook();
    s64 result = ticket.result.value_or(0);
    std::string note;
    if (ends || !ticket.result || ticket.takes_effect) {
        Context context{Lock(state().mutex), ticket.result.has_value()};
        const s64 effected = effect(context);
        result = ticket.result.value_or(effected);
        note = std::move(context.note);
    }
    for (const auto& hook : ticket.behind)
        hook();
    end_call(ticket, result, note);
    return static_cast<Result>(result);
}
template <class Effect>
auto call(const std::string& function, std::string arguments, Effect&& effect)
{
    return perform(false, function, "", std::move(arguments), effect);
}
inline u32 call(const std::string& function, std::string arguments = "")
{
    return call(function, std::move(arguments), [](Context&) { return ZU_OK; });
}
/** Writes an output argument in one piece, as a device does: callbacks may read it. */
template <class T> void store_output(T* output, T value)
{
    __atomic_store_n(output, value, __ATOMIC_SEQ_CST);
}

template <class Effect>
auto ending_call(const std::string& function, std::string arguments, Effect&& effect)
{
    return perform(true, function, "", std::move(arguments), effect);
}

/** Blocks the calling thread until `waiter` is woken or virtual time passes its deadline. */
void wait(Lock& lock, Waiter& waiter, const std::string& what);
void wake(Waiter& waiter);
/** Moves the clock if no thread can run; called whenever one has stopped running. */
void let_time_pass();

/** A kind of device: its name, its first handle and the module that it belongs to. */
struct KindFacts {
    std::string name;
    u32 first_handle;
    std::string module;
};
const KindFacts& facts(Kind kind);
std::string name_of(Kind kind, u32 handle);

/** A live device of that kind, or nullptr after noting which call found it dead. */
Device* live_device(u32 handle, Kind kind, const std::string& function);

void end_all_tasks(Lock& lock);
std::span<u8> new_low_memory(size_t size);
int renderer_objects_left();

} // namespace middleware
