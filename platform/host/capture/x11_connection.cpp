#include "capture/x11_connection.h"

#include "log/host_log.h"

#include <chrono>
#include <poll.h>
#include <sys/socket.h>
#include <xcb/xcbext.h>

namespace zu3host {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto answer_limit = std::chrono::seconds(5);
constexpr int stop_check_ms = 50; // how long a stop may go unnoticed while the server does not answer

const char* reason(int xcb_error)
{
    switch (xcb_error) {
    case XCB_CONN_CLOSED_PARSE_ERR:
        return "the value is not a display's name";
    case XCB_CONN_CLOSED_INVALID_SCREEN:
        return "the server has no such screen";
    case XCB_CONN_CLOSED_MEM_INSUFFICIENT:
        return "not enough memory";
    default:
        return "no X server answers there, or it refuses this user";
    }
}

const xcb_screen_t* screen_number(xcb_connection_t* xcb, int number)
{
    xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(xcb));
    for (; screens.rem > 0 && number > 0; --number)
        xcb_screen_next(&screens);
    return screens.rem > 0 ? screens.data : nullptr;
}

} // namespace

std::unique_ptr<X11Connection> X11Connection::open()
{
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display) {
        HOST_LOGE("DISPLAY is not set, so there is no screen to capture: set it to the X display to record "
                  "(such as DISPLAY=:0), or set ZU3_DISPLAY=testcard to record a test card.");
        return nullptr;
    }
    int screen_index = 0;
    xcb_connection_t* xcb = xcb_connect(nullptr, &screen_index);
    const int error = xcb_connection_has_error(xcb);
    const xcb_screen_t* screen = error ? nullptr : screen_number(xcb, screen_index);
    if (!screen) {
        HOST_LOGE("The X display DISPLAY=\"%s\" cannot be reached: %s. Check DISPLAY and XAUTHORITY, or set "
                  "ZU3_DISPLAY=testcard to record a test card.",
                  display, reason(error ? error : XCB_CONN_CLOSED_INVALID_SCREEN));
        xcb_disconnect(xcb);
        return nullptr;
    }
    return std::unique_ptr<X11Connection>(new X11Connection(xcb, screen, display));
}

X11Connection::~X11Connection()
{
    xcb_disconnect(xcb_);
}

bool X11Connection::is_local() const
{
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    return getsockname(xcb_get_file_descriptor(xcb_), reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
           address.ss_family == AF_UNIX;
}

void X11Connection::take_events()
{
    while (const XcbOwned<xcb_generic_event_t> event{xcb_poll_for_event(xcb_)})
        if (listener_)
            listener_(*event);
    lost_ = lost_ || xcb_connection_has_error(xcb_);
}

void X11Connection::wait_for(unsigned sequence, void** reply, xcb_generic_error_t** error,
                             const std::stop_token& stop)
{
    const auto deadline = Clock::now() + answer_limit;
    xcb_flush(xcb_);
    while (!lost_) {
        if (xcb_poll_for_reply(xcb_, sequence, reply, error)) {
            lost_ = xcb_connection_has_error(xcb_);
            return;
        }
        if (stop.stop_requested())
            break;
        // xcb reads its socket while it looks for events only.
        pollfd readable{xcb_get_file_descriptor(xcb_), POLLIN, 0};
        poll(&readable, 1, stop_check_ms);
        take_events();
        lost_ = lost_ || Clock::now() > deadline;
    }
    xcb_discard_reply(xcb_, sequence);
}

bool X11Connection::succeeded(xcb_void_cookie_t cookie, const std::stop_token& stop)
{
    // A request behind it whose reply can be waited for with a bound; the check then finds its answer there.
    const auto behind = xcb_get_input_focus(xcb_);
    const auto answer = wait<xcb_get_input_focus_reply_t>(behind.sequence, stop);
    if (!answer.reply) {
        xcb_discard_reply(xcb_, cookie.sequence);
        return false;
    }
    return !XcbOwned<xcb_generic_error_t>(xcb_request_check(xcb_, cookie));
}

bool X11Connection::has(xcb_extension_t* extension)
{
    const xcb_query_extension_reply_t* data = xcb_get_extension_data(xcb_, extension);
    return data && data->present;
}

} // namespace zu3host
