#include "capture/x11_connection.h"

#include "base/host_log.h"

#include <array>
#include <cerrno>
#include <common/x11_screen.h>
#include <cstdlib>
#include <cstring>
#include <sys/auxv.h>
#include <sys/socket.h>
#include <xcb/xcbext.h>

namespace zu3host {

namespace {

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

} // namespace

std::unique_ptr<X11Connection> X11Connection::open()
{
    const char* display = secure_getenv("DISPLAY");
    if (getauxval(AT_SECURE)) {
        HOST_LOGE(
            "This process has more privileges than its user (set-uid, set-gid or file capabilities), so it ignores the environment and finds no display: remove them. RLIMIT_NICE is enough for the priority of its threads.");
        return nullptr;
    }
    if (!display || !*display) {
        HOST_LOGE(
            "DISPLAY is not set, so there is no screen to capture: set it to the X display to record (such as DISPLAY=:0), or set ZU3_DISPLAY=testcard to record a test card.");
        return nullptr;
    }
    int screen_index = 0;
    xcb_connection_t* xcb = xcb_connect(nullptr, &screen_index);
    const int error = xcb_connection_has_error(xcb);
    const xcb_screen_t* screen =
        error ? nullptr : common::find_screen(*xcb_get_setup(xcb), screen_index);
    if (!screen) {
        HOST_LOGE(
            "The X display DISPLAY=\"%s\" cannot be reached: %s. Check DISPLAY and XAUTHORITY, or set ZU3_DISPLAY=testcard to record a test card.",
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
    return getsockname(xcb_get_file_descriptor(xcb_), reinterpret_cast<sockaddr*>(&address),
                       &length) == 0 &&
           address.ss_family == AF_UNIX;
}

void X11Connection::cut()
{
    cut_ = true;
    shutdown(xcb_get_file_descriptor(xcb_), SHUT_RDWR);
}

void X11Connection::take_events()
{
    while (const XcbOwned<xcb_generic_event_t> event{xcb_poll_for_event(xcb_)})
        if (listener_)
            listener_(*event);
}

bool X11Connection::has_short_replies(size_t count) const
{
    // the bytes of the shortest reply, in which byte 0 says what it is, and bytes 4 to 7 how much
    // follows
    constexpr size_t reply_bytes = 32;
    constexpr uint8_t reply_kind = 1;
    std::array<uint8_t, 4 * reply_bytes> bytes{};
    const ssize_t size =
        recv(xcb_get_file_descriptor(xcb_), bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT);
    if (count == 0)
        return size < 0 && errno == EAGAIN;
    if (size != static_cast<ssize_t>(count * reply_bytes))
        return false;
    for (size_t at = 0; at < count * reply_bytes; at += reply_bytes) {
        uint32_t more = 0;
        std::memcpy(&more, &bytes[at + 4], sizeof more);
        if (bytes[at] != reply_kind || more != 0)
            return false;
    }
    return true;
}

void X11Connection::wait_for(unsigned sequence, void** reply, xcb_generic_error_t** error)
{
    *reply = xcb_wait_for_reply(xcb_, sequence, error);
    // those that came before it
    take_events();
}

bool X11Connection::succeeded(xcb_void_cookie_t cookie)
{
    // xcb's own check aborts the program when the server sends an unexpected reply. With the
    // answer to a request behind it, all that came to this one is here.
    const auto behind = xcb_get_input_focus(xcb_);
    const bool answered = wait<xcb_get_input_focus_reply_t>(behind.sequence).reply != nullptr;
    void* reply = nullptr;
    xcb_generic_error_t* error = nullptr;
    xcb_poll_for_reply(xcb_, cookie.sequence, &reply, &error);
    const XcbOwned<void> no_reply(reply);
    const XcbOwned<xcb_generic_error_t> no_error(error);
    return answered && !error;
}

bool X11Connection::has(xcb_extension_t* extension)
{
    const xcb_query_extension_reply_t* data = xcb_get_extension_data(xcb_, extension);
    return data && data->present;
}

} // namespace zu3host
