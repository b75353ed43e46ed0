#include "picture/due_times.h"

#include "base/border.h"

#include <array>
#include <cstddef>
#include <mutex>
#include <zu3_host/due_time.h>

namespace zu3host {
namespace {

struct Noted {
    uint64_t pts;
    uint64_t due;
};

std::mutex due_times_mutex;
// under the mutex, the oldest replaced by the newest
std::array<Noted, 64> due_times;
size_t oldest_due_time;

} // namespace

void note_due_time(uint64_t pts, uint64_t due)
{
    const std::lock_guard lock(due_times_mutex);
    due_times[oldest_due_time] = {pts, due};
    oldest_due_time = (oldest_due_time + 1) % due_times.size();
}

} // namespace zu3host

HOST_EXPORT uint64_t zu3_host_due_time(uint64_t pts)
{
    using namespace zu3host;
    const std::lock_guard lock(due_times_mutex);
    for (const auto& [noted, due] : due_times)
        if (noted == pts)
            return due;
    return 0;
}
