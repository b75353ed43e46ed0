#include <algorithm>

#include "middleware/state.h"

namespace middleware {

namespace {

// What says little about the order of work, and what a device cannot refuse.
const std::set<std::string> noise = {"__android_log_print",       "systemTime",      "ZU_OS_ObtainMutex",
                                     "ZU_OS_ReleaseMutex",        "ZU_OS_DelayTask", "ZU_OS_GetSystemTime",
                                     "ZU_OS_TimerDiffTimeFromNow"};
const std::set<std::string> cannot_fail = {"__android_log_print", "systemTime", "ZU_OS_ReleaseMutex",
                                           "ZU_OS_DelayTask"};

s64 own_failure(const std::string& function)
{
    if (function == "ZU_FS_Fread" || function == "ZU_FS_Fwrite")
        return -1;
    const bool answers_object = function == "ZU_FS_Fopen" || function.find("::new") != std::string::npos;
    return answers_object ? 0 : ZU_FAILURE;
}

std::string line_of(const Call& call)
{
    return call.function + "(" + call.arguments + ")" + (call.outcome.empty() ? "..." : call.outcome);
}

template <class Wanted> std::vector<std::string> lines(Wanted wanted)
{
    const Lock lock(state().mutex);
    std::vector<std::string> result;
    for (const Call& call : state().calls) {
        if (wanted(call))
            result.push_back(line_of(call));
    }
    return result;
}

bool is_quiet(const Call& call)
{
    return !noise.contains(call.function);
}

void forget_calls()
{
    const Lock lock(state().mutex);
    state().calls_forgotten += state().calls.size();
    state().calls.clear();
}

bool matches(const ScriptEntry& entry, const std::string& function, const std::string& variant)
{
    if (entry.name == "*")
        return !cannot_fail.contains(function);
    return entry.name == function || (!variant.empty() && entry.name == function + ":" + variant);
}

/** Takes one call off the entry's count; whether the entry acts on this call. */
bool is_due(ScriptEntry& entry)
{
    if (entry.answer.nth > 1) {
        entry.answer.nth--;
        return false;
    }
    return true;
}

void add_hook(const std::string& name, std::function<void()> hook, When when, bool after)
{
    const Lock lock(state().mutex);
    state().script.push_back({name, {{}, when.nth, when.forever}, std::move(hook), after});
}

} // namespace

std::string joined(const std::vector<std::string>& lines)
{
    std::string result;
    for (const std::string& line : lines)
        result += line + "\n";
    return result;
}

std::string hex(u64 value)
{
    std::ostringstream out;
    out << "0x" << std::hex << value;
    return out.str();
}

Ticket begin_call(const std::string& function, const std::string& variant, std::string arguments)
{
    State& s = state();
    const Lock lock(s.mutex);
    Ticket ticket{s.calls_forgotten + s.calls.size()};
    s.calls.push_back({function, variant, std::move(arguments), ""});
    bool answered = false;
    for (auto entry = s.script.begin(); entry != s.script.end();) {
        if (!matches(*entry, function, variant) || (!entry->hook && answered) || !is_due(*entry)) {
            ++entry;
            continue;
        }
        entry->used = true;
        if (entry->hook) {
            (entry->after ? ticket.after : ticket.before).push_back(entry->hook);
        } else {
            answered = true;
            ticket.result = entry->answer.result.value_or(own_failure(function));
        }
        entry = entry->answer.forever ? std::next(entry) : s.script.erase(entry);
    }
    return ticket;
}

void end_call(const Ticket& ticket, s64 result, const std::string& note)
{
    State& s = state();
    const Lock lock(s.mutex);
    if (ticket.number >= s.calls_forgotten)
        s.calls[ticket.number - s.calls_forgotten].outcome = text("=", result, note.empty() ? "" : " ", note);
}

std::vector<std::string> Middleware::calls() const
{
    return lines(is_quiet);
}

std::vector<std::string> Middleware::take_calls()
{
    std::vector<std::string> result = lines(is_quiet);
    forget_calls();
    return result;
}

std::vector<std::string> Middleware::calls_of(std::initializer_list<std::string_view> prefixes) const
{
    return lines([&](const Call& call) {
        return std::any_of(prefixes.begin(), prefixes.end(),
                           [&](std::string_view prefix) { return line_of(call).starts_with(prefix); });
    });
}

std::vector<std::string> Middleware::call_names() const
{
    const Lock lock(state().mutex);
    std::vector<std::string> result;
    for (const Call& call : state().calls)
        result.push_back(call.variant.empty() ? call.function : call.function + ":" + call.variant);
    return result;
}

int Middleware::count(std::string_view function) const
{
    return static_cast<int>(lines([&](const Call& call) { return call.function == function; }).size());
}

Bytes Middleware::last_bytes(const std::string& function) const
{
    const Lock lock(state().mutex);
    const auto found = state().records.find(function);
    return found == state().records.end() ? Bytes() : found->second;
}

void Middleware::fail(const std::string& name, Answer answer)
{
    const Lock lock(state().mutex);
    state().script.push_back({name, std::move(answer), {}});
}

void Middleware::fail_call_number(int n, std::optional<s64> result)
{
    fail("*", {.result = result, .nth = n});
}

void Middleware::inside(const std::string& name, std::function<void()> hook, When when)
{
    add_hook(name, std::move(hook), when, false);
}

void Middleware::after(const std::string& name, std::function<void()> hook, When when)
{
    add_hook(name, std::move(hook), when, true);
}

bool Middleware::script_pending() const
{
    const Lock lock(state().mutex);
    const auto& script = state().script;
    return std::any_of(script.begin(), script.end(), [](const ScriptEntry& e) { return !e.hook && !e.used; });
}

void Middleware::clear_script()
{
    const Lock lock(state().mutex);
    state().script.clear();
}

} // namespace middleware
