#pragma once

#include "capture/screen_module.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <wayland-client.h>

namespace zu3host {

/** Why a session cannot be used, as in ScreenOpening. */
struct WaylandProblem {
    ScreenFailure failure = ScreenFailure::none;
    std::string reason;
};

/**
 * A connection to the Wayland compositor. It is lost when it ends or the compositor violates the
 * protocol, but not if the compositor is slow. After a loss every wait returns at once. wait() and
 * take_events() call the listeners of objects. One thread at a time, except for cut().
 */
class WaylandConnection {
public:
    using Clock = std::chrono::steady_clock;

    /**
     * Connects to the socket that WAYLAND_DISPLAY names, without waiting for the compositor. Null,
     * with the problem, if nothing accepts connections there.
     */
    static std::unique_ptr<WaylandConnection> open(WaylandProblem& problem);
    ~WaylandConnection();
    WaylandConnection(const WaylandConnection&) = delete;
    WaylandConnection& operator=(const WaylandConnection&) = delete;

    wl_display* display() const { return display_; }
    /** The value of WAYLAND_DISPLAY at the opening. */
    const std::string& name() const { return name_; }
    bool lost() const { return wl_display_get_error(display_) != 0; }
    /** Ends the connection and every wait; from any thread. */
    void cut();
    bool was_cut() const { return cut_; }

    /** Sends the requests that are queued and handles the events that have arrived. */
    void take_events() { exchange({}); }
    /** Sends the requests that are queued, as far as the compositor reads them. */
    void flush() { wl_display_flush(display_); }
    /** Handles events until the condition is true. False at the deadline or when lost. */
    template <typename Condition> bool wait_until(Clock::time_point deadline, Condition reached)
    {
        take_events();
        while (!reached() && !lost()) {
            const std::chrono::nanoseconds left = time_to(deadline);
            if (left <= std::chrono::nanoseconds::zero())
                return false;
            exchange(left);
        }
        return reached();
    }
    /** Without a limit. */
    template <typename Condition> bool wait(Condition reached)
    {
        return wait_until(Clock::time_point::max(), reached);
    }

private:
    WaylandConnection(wl_display* display, int socket, std::string name)
        : display_(display), socket_(socket), name_(std::move(name))
    {
    }
    /** At most a second, at least nothing. */
    static std::chrono::nanoseconds time_to(Clock::time_point deadline);
    void exchange(std::chrono::nanoseconds wait);

    wl_display* const display_;
    const int socket_;
    const std::string name_;
    std::atomic<bool> cut_{false};
};

} // namespace zu3host
