#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <utility>

#include <common/descriptor.h>

namespace client {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

/** The time of Clock in microseconds, as in the time stamps of frames and sound. */
uint64_t now_us();

/** Milliseconds for poll() so that it returns at or after `until`; 0 if that has passed. */
int poll_timeout(TimePoint until);

/** A descriptor to wait for, and the reaction once it is readable; -1 = none. */
struct Awaited {
    int fd;
    std::function<void()> react = {};
};
/**
 * Waits until one of the descriptors is readable, at most until `until`. Then calls the reaction of
 * each readable one, in their order.
 */
void wait_for(std::span<const Awaited> all, TimePoint until);
/** The reaction to an eventfd: resets it. */
std::function<void()> reset(int event);

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
