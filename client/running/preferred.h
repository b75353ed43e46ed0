#pragma once

#include <sys/resource.h>

namespace client {

/**
 * While it exists, this thread runs at the higher priority of the capture threads, if the system
 * allows it: it has three frame periods to read a frame.
 */
class Preferred {
public:
    Preferred()
        : preferred_(getpriority(PRIO_PROCESS, 0) == 0 && setpriority(PRIO_PROCESS, 0, -10) == 0)
    {
    }
    Preferred(const Preferred&) = delete;
    Preferred& operator=(const Preferred&) = delete;
    ~Preferred()
    {
        if (preferred_)
            setpriority(PRIO_PROCESS, 0, 0);
    }

private:
    const bool preferred_;
};

} // namespace client
