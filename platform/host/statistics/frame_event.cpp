#include "statistics/frame_event.h"

#include "base/border.h"
#include "zu3_host/frame_event.h"

#include <atomic>
#include <sys/eventfd.h>

namespace {

std::atomic<int> wanted_event{-1};

int make_event()
{
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    wanted_event.store(fd, std::memory_order_release);
    return fd;
}

} // namespace

void zu3host::signal_frame()
{
    const int fd = wanted_event.load(std::memory_order_acquire);
    if (fd >= 0)
        eventfd_write(fd, 1);
}

HOST_EXPORT int zu3_host_frame_event(void)
{
    static const int event = make_event();
    return event;
}
