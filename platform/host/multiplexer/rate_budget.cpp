#include "multiplexer/rate_budget.h"

#include "encoder/rate_ceiling.h"

#include <algorithm>
#include <map>
#include <mutex>

namespace zu3host {

namespace {

/** An AAC frame of 341 bytes fills two packets, 46.875 times a second. */
constexpr uint64_t sound_rate = 141000;

std::mutex budgets_mutex;

// Never destroyed: a multiplexer may still be closed on another thread while the process exits.
std::map<const RateBudget*, uint64_t>& budgets()
{
    static auto& all = *new std::map<const RateBudget*, uint64_t>;
    return all;
}

} // namespace

void RateBudget::set(uint64_t bits_per_second)
{
    const std::lock_guard lock(budgets_mutex);
    auto& all = budgets();
    // A change needs no memory, so that it cannot fail.
    if (bits_per_second != 0)
        all.insert_or_assign(this, bits_per_second);
    else if (all.erase(this) == 0)
        return;
    uint64_t lowest = 0;
    for (const auto& [budget, bits] : all)
        lowest = lowest == 0 ? bits : std::min(lowest, bits);
    set_rate_ceiling(lowest);
}

uint64_t picture_budget(uint64_t stream_rate, bool with_sound)
{
    const uint64_t left =
        with_sound ? stream_rate - std::min(stream_rate / 2, sound_rate) : stream_rate;
    return left * 85 / 100;
}

} // namespace zu3host
