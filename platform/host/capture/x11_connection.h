#pragma once

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <xcb/xcb.h>

namespace zu3host {

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};
template <typename T> using XcbOwned = std::unique_ptr<T, FreeDeleter>;

/** What a request came to: a reply, an error, or neither when the server did not answer or a stop was asked
 * for. */
template <typename T> struct XcbAnswer {
    XcbOwned<T> reply;
    XcbOwned<xcb_generic_error_t> error;
};

/**
 * A connection to the X server. Waits in wait() and succeeded() are bounded: a server that does not answer
 * for five seconds counts as lost. A lost connection stays lost; every later wait returns at once. xcb itself
 * waits without a bound in open(), and in has() where an extension is asked for the first time. One thread at
 * a time.
 */
class X11Connection {
public:
    /** Connects to the display that DISPLAY names; null with a log line that says what to do. */
    static std::unique_ptr<X11Connection> open();
    ~X11Connection();
    X11Connection(const X11Connection&) = delete;
    X11Connection& operator=(const X11Connection&) = delete;

    xcb_connection_t* xcb() const { return xcb_; }
    const xcb_screen_t& screen() const { return *screen_; }
    /** The value of DISPLAY at the opening. */
    const std::string& display() const { return display_; }
    /** Whether the server is on this machine, so that memory can be shared with it by descriptor. */
    bool is_local() const;
    bool lost() const { return lost_; }

    /** Called for each event, from within waits and take_events(). */
    void on_event(std::function<void(const xcb_generic_event_t&)> listener)
    {
        listener_ = std::move(listener);
    }
    /** Hands out the events that have arrived; does not wait. */
    void take_events();

    /** The answer to a request that has a reply. */
    template <typename T> XcbAnswer<T> wait(unsigned sequence, const std::stop_token& stop)
    {
        void* reply = nullptr;
        xcb_generic_error_t* error = nullptr;
        wait_for(sequence, &reply, &error, stop);
        return {XcbOwned<T>(static_cast<T*>(reply)), XcbOwned<xcb_generic_error_t>(error)};
    }
    /** Whether a checked request without a reply went well; one round trip. */
    bool succeeded(xcb_void_cookie_t cookie, const std::stop_token& stop);
    /** Whether the server has the extension. Asked for once by xcb, then known. */
    bool has(xcb_extension_t* extension);

private:
    X11Connection(xcb_connection_t* xcb, const xcb_screen_t* screen, std::string display)
        : xcb_(xcb), screen_(screen), display_(std::move(display))
    {
    }
    void wait_for(unsigned sequence, void** reply, xcb_generic_error_t** error, const std::stop_token& stop);

    xcb_connection_t* xcb_;
    const xcb_screen_t* screen_;
    std::string display_;
    std::function<void(const xcb_generic_event_t&)> listener_;
    bool lost_ = false;
};

} // namespace zu3host
