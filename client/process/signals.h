#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <utility>

#include <common/descriptor.h>

namespace client {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

/** The time of Clock in microseconds, as in the time stamps of frames and sound. */
uint64_t now_us();

/** Milliseconds for poll() so that it returns at or after `until`; 0 if that has passed. */
int poll_timeout(TimePoint until);
/** The same for ppoll(), which can wait for less than a millisecond. */
timespec time_left(TimePoint until);

/** The requests of SIGUSR1 and SIGUSR2. */
enum class PauseRequest { none, pause, resume };

/**
 * SIGINT, SIGTERM and SIGHUP as a stop request, SIGUSR1 and SIGUSR2 as pause requests, to poll for.
 * They stay blocked until the process ends, so a second signal during the close of a file changes
 * nothing. Construct it before any thread exists: threads inherit the mask.
 */
class StopSignals {
public:
    /**
     * Blocks the signals, and ignores SIGPIPE and similar ones: their errors are handled where they
     * occur.
     */
    StopSignals();

    /** Readable while a signal has not been read. */
    int fd() const { return fd_.get(); }

    /** Whether a stop was ever requested. */
    bool raised();
    /** The number of stop signals so far. */
    unsigned stops();

    /** The latest pause request since the last call. */
    PauseRequest take_pause_request() { return std::exchange(pause_request_, PauseRequest::none); }

    /** Waits until a stop is requested or `until` has passed; returns raised(). */
    bool wait_until(TimePoint until);

private:
    common::Descriptor fd_;
    unsigned stops_ = 0;
    PauseRequest pause_request_ = PauseRequest::none;
};

} // namespace client
