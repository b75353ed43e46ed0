#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <xcb/xcb.h>

namespace zu3host {

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};
template <typename T> using XcbOwned = std::unique_ptr<T, FreeDeleter>;

/**
 * The outcome of a request: a reply, an error, or neither if the connection ended or the server
 * skipped it.
 */
template <typename T> struct XcbAnswer {
    XcbOwned<T> reply;
    XcbOwned<xcb_generic_error_t> error;
};

/**
 * A connection to the X server. Nearly every call may wait without a bound: xcb blocks while it
 * connects, asks for an extension, finds no room for a request, and from the first byte of a reply
 * to the last. A connection is lost when it ends, never for being slow; a lost one stays lost, and
 * every later wait returns at once. One thread at a time, but for cut().
 */
class X11Connection {
public:
    /** Connects to the display that DISPLAY names; null, with a log line and remedy, on failure. */
    static std::unique_ptr<X11Connection> open();
    ~X11Connection();
    X11Connection(const X11Connection&) = delete;
    X11Connection& operator=(const X11Connection&) = delete;

    xcb_connection_t* xcb() const { return xcb_; }
    const xcb_screen_t& screen() const { return *screen_; }
    /** The value of DISPLAY at the opening. */
    const std::string& display() const { return display_; }
    /**
     * Whether the server is on this machine, so that memory can be shared with it by descriptor.
     */
    bool is_local() const;
    bool lost() const { return xcb_connection_has_error(xcb_) != 0; }
    /** Ends the connection and every wait; from any thread. */
    void cut();
    bool was_cut() const { return cut_; }

    /** Called for each event, from within waits and take_events(). */
    void on_event(std::function<void(const xcb_generic_event_t&)> listener)
    {
        listener_ = std::move(listener);
    }
    /** Hands out the events that have arrived; does not wait. */
    void take_events();

    /** The answer to a request that has a reply. */
    template <typename T> XcbAnswer<T> wait(unsigned sequence)
    {
        void* reply = nullptr;
        xcb_generic_error_t* error = nullptr;
        wait_for(sequence, &reply, &error);
        return {XcbOwned<T>(static_cast<T*>(reply)), XcbOwned<xcb_generic_error_t>(error)};
    }
    /**
     * Whether this many replies of the shortest length have arrived, and nothing else. Reading them
     * does not wait then.
     */
    bool has_short_replies(size_t count) const;
    /** Sends the queued requests. Waits if the server has not read the earlier ones. */
    void send() { xcb_flush(xcb_); }
    /** Whether a checked request without a reply succeeded; one round trip. */
    bool succeeded(xcb_void_cookie_t cookie);
    /** Whether the server has the extension. Asked for once by xcb, then known. */
    bool has(xcb_extension_t* extension);

private:
    X11Connection(xcb_connection_t* xcb, const xcb_screen_t* screen, std::string display)
        : xcb_(xcb), screen_(screen), display_(std::move(display))
    {
    }
    void wait_for(unsigned sequence, void** reply, xcb_generic_error_t** error);

    xcb_connection_t* xcb_;
    const xcb_screen_t* screen_;
    std::string display_;
    std::function<void(const xcb_generic_event_t&)> listener_;
    std::atomic<bool> cut_{false};
};

} // namespace zu3host
