#include "encoder/rate_ceiling.h"

#include <atomic>

namespace zu3host {
namespace {

std::atomic<uint64_t> ceiling{0};

} // namespace

void set_rate_ceiling(uint64_t bits_per_second)
{
    ceiling.store(bits_per_second, std::memory_order_relaxed);
}

uint64_t rate_ceiling()
{
    return ceiling.load(std::memory_order_relaxed);
}

} // namespace zu3host
