#pragma once

#include "statistics/counters.h"

#include <chrono>

namespace zu3host {

/**
 * While it lives, the statistics say since when a write waits; of several at a time the first to
 * begin.
 */
class WriteWait {
public:
    WriteWait()
    {
        using namespace std::chrono;
        const int64_t now =
            duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
        int64_t none = 0;
        first_ = counters().write_waits_since_us.compare_exchange_strong(none, now,
                                                                         std::memory_order_relaxed);
    }
    ~WriteWait()
    {
        if (first_)
            counters().write_waits_since_us.store(0, std::memory_order_relaxed);
    }
    WriteWait(const WriteWait&) = delete;
    WriteWait& operator=(const WriteWait&) = delete;

private:
    bool first_;
};

} // namespace zu3host
