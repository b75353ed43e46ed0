#include "middleware/contract_call.h"

namespace middleware {

namespace {

// Calls that say little about the order of work.
const std::set<std::string> noise = {
    "__android_log_print", "systemTime",          "ZU_OS_ObtainMutex",         "ZU_OS_ReleaseMutex",
    "ZU_OS_DelayTask",     "ZU_OS_GetSystemTime", "ZU_OS_TimerDiffTimeFromNow"};

std::string line_of(const Call& call)
{
    return call.function + "(" + call.arguments + ")" +
           (call.outcome.empty() ? "..." : call.outcome);
}

template <class Wanted> std::vector<std::string> lines(Wanted wanted)
{
    std::vector<std::string> result;
    for (const Call& call : state().calls)
        if (wanted(call))
            result.push_back(line_of(call));
    return result;
}

bool matches(const ScriptEntry& entry, const std::string& function, const std::string& full_name)
{
    if (entry.name == "*")
        return function != "ZU_OS_ReleaseMutex" && !contract_results(function).empty();
    return entry.name == function || entry.name == full_name;
}

} // namespace

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
    const std::string full_name = variant.empty() ? function : function + ":" + variant;
    s.calls.push_back({function, full_name, std::move(arguments)});
    bool answered = false;
    for (auto entry = s.script.begin(); entry != s.script.end();) {
        if (!matches(*entry, function, full_name) || (!entry->hook && answered) ||
            entry->answer.nth-- > 1) {
            ++entry;
            continue;
        }
        if (entry->hook) {
            (entry->behind ? ticket.behind : ticket.before).push_back(entry->hook);
        } else {
            answered = true;
            ticket.result = entry->answer.result.value_or(contract_results(function).front());
            ticket.takes_effect = entry->answer.takes_effect;
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
        s.calls[ticket.number - s.calls_forgotten].outcome =
            text("=", result, note.empty() ? "" : " ", note);
}

std::vector<std::string> Middleware::take_calls()
{
    const Lock lock(state().mutex);
    std::vector<std::string> result =
        lines([](const Call& call) { return !noise.contains(call.function); });
    state().calls_forgotten += state().calls.size();
    state().calls.clear();
    return result;
}

std::vector<std::string>
Middleware::calls_of(std::initializer_list<std::string_view> prefixes) const
{
    const Lock lock(state().mutex);
    return lines([&](const Call& call) {
        return std::ranges::any_of(prefixes, [line = line_of(call)](std::string_view prefix) {
            return line.starts_with(prefix);
        });
    });
}

std::vector<std::string> Middleware::call_names() const
{
    const Lock lock(state().mutex);
    std::vector<std::string> result;
    for (const Call& call : state().calls)
        result.push_back(call.full_name);
    return result;
}

int Middleware::count(std::string_view function) const
{
    const Lock lock(state().mutex);
    return static_cast<int>(std::ranges::count(state().calls, function, &Call::function));
}

} // namespace middleware
