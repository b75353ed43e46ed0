#include "capture/picture_time.h"

#include "capture/picture_time_scope.h"

namespace zu3host {
namespace {

thread_local std::optional<uint64_t> due_time;

} // namespace

DueTimeInCallback::DueTimeInCallback(std::chrono::steady_clock::time_point due)
{
    using std::chrono::microseconds;
    due_time = static_cast<uint64_t>(
        std::chrono::duration_cast<microseconds>(due.time_since_epoch()).count());
}

DueTimeInCallback::~DueTimeInCallback()
{
    due_time.reset();
}

std::optional<uint64_t> due_time_of_picture_in_callback()
{
    return due_time;
}

} // namespace zu3host
