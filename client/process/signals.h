#pragma once

#include <chrono>
#include <ctime>
#include <utility>

#include <common/descriptor.h>

namespace client {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

/**
 * Milliseconds to hand to poll() so that it returns at or after `until`; 0 when that has passed.
 */
int poll_timeout(TimePoint until);
/** The same for ppoll(), which can wait for less than a millisecond. */
timespec time_left(TimePoint until);

/** What SIGUSR1 and SIGUSR2 ask for. */
enum class PauseRequest { none, pause, resume };

/**
 * SIGINT, SIGTERM and SIGHUP as something to wait for, and SIGUSR1 and SIGUSR2 beside them. They
 * stay blocked for the life of the process, so that another one while a file is being closed
 * changes nothing. Made before any thread exists: threads inherit the mask.
 */
class StopSignals {
public:
    /**
     * Blocks the signals and ignores SIGPIPE and the like, whose errors are handled where they
     * happen.
     */
    StopSignals();

    /** Readable when a signal has come that was not looked at. */
    int fd() const { return fd_.get(); }

    /** Whether a stop was asked for, ever. */
    bool raised();
    /** How many times, with what was not looked at. */
    unsigned stops();

    /** What was asked for of late, by the last signal that did; once. */
    PauseRequest take_pause_request() { return std::exchange(pause_request_, PauseRequest::none); }

    /**
     * Waits until a stop is asked for or `until` has come; returns whether a stop was asked for,
     * ever.
     */
    bool wait_until(TimePoint until);

private:
    common::Descriptor fd_;
    unsigned stops_ = 0;
    PauseRequest pause_request_ = PauseRequest::none;
};

} // namespace client
