#pragma once

#include <chrono>

#include "unique_fd.h"

namespace client {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

/** Milliseconds to hand to poll() so that it returns at or after `until`; 0 when that has passed. */
int poll_timeout(TimePoint until);

/**
 * SIGINT, SIGTERM and SIGHUP as something to wait for. They stay blocked for the life of the process, so that
 * another one while a file is being closed changes nothing. Made before any thread exists: threads inherit
 * the mask.
 */
class StopSignals {
public:
    /** Blocks the signals and ignores SIGPIPE and the like, whose errors are handled where they happen. */
    StopSignals();

    /** Readable when a stop was asked for. */
    int fd() const { return fd_.get(); }

    /** Whether a stop was asked for, ever. */
    bool raised();

    /** Waits until a stop is asked for or `until` has come; returns whether a stop was asked for, ever. */
    bool wait_until(TimePoint until);

private:
    UniqueFd fd_;
    bool raised_ = false;
};

} // namespace client
