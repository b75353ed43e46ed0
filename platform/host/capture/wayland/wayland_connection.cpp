#include "capture/wayland/wayland_connection.h"

#include <algorithm>
#include <cerrno>
#include <common/descriptor.h>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/auxv.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace zu3host {

namespace {

/** Drops libwayland's messages, which go to standard error otherwise. */
void say_nothing(const char*, va_list) {}

bool find_socket(std::string& name, std::string& path, WaylandProblem& problem)
{
    const auto missing = [&problem](std::string reason) {
        problem = {ScreenFailure::no_session, std::move(reason)};
        return false;
    };
    if (getauxval(AT_SECURE))
        return missing("this program has privileges (set-uid, set-gid or file capabilities) and "
                       "therefore ignores WAYLAND_DISPLAY; remove them");
    const char* const display = secure_getenv("WAYLAND_DISPLAY");
    if (!display || !*display)
        return missing("WAYLAND_DISPLAY is not set, so no Wayland session is known; start this "
                       "from a terminal of the session");
    name = path = display;
    if (name.front() == '/')
        return true;
    const char* const folder = secure_getenv("XDG_RUNTIME_DIR");
    if (!folder || *folder != '/')
        return missing("XDG_RUNTIME_DIR is not set, so the socket of WAYLAND_DISPLAY=\"" + name +
                       "\" cannot be found; start this from a terminal of the session");
    path = std::string(folder) + "/" + name;
    return true;
}

/** A connected socket, or -1 with the problem. */
int connect_to(const std::string& name, const std::string& path, WaylandProblem& problem)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const auto fail = [&](ScreenFailure failure, const char* reason) {
        problem = {failure, "no Wayland compositor answers at WAYLAND_DISPLAY=\"" + name + "\" (" +
                                path + "): " + reason};
        return -1;
    };
    if (path.size() >= sizeof address.sun_path)
        return fail(ScreenFailure::no_session, "the name is too long");
    std::copy(path.begin(), path.end(), address.sun_path);
    common::Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
        return fail(ScreenFailure::failed, std::strerror(errno));
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return fd.release();
    const int error = errno;
    // The queue is full: the compositor hangs.
    if (error == EAGAIN)
        return fail(ScreenFailure::failed, "it accepts no connection");
    return fail(error == EACCES || error == EPERM ? ScreenFailure::failed
                                                  : ScreenFailure::no_session,
                std::strerror(error));
}

} // namespace

std::unique_ptr<WaylandConnection> WaylandConnection::open(WaylandProblem& problem)
{
    std::string name;
    std::string path;
    if (!find_socket(name, path, problem))
        return nullptr;
    const int fd = connect_to(name, path, problem);
    if (fd < 0)
        return nullptr;
    wl_log_set_handler_client(say_nothing);
    // closes the socket when it fails
    wl_display* const display = wl_display_connect_to_fd(fd);
    if (!display) {
        problem = {ScreenFailure::failed, "memory ran out while connecting"};
        return nullptr;
    }
    return std::unique_ptr<WaylandConnection>(new WaylandConnection(display, fd, std::move(name)));
}

WaylandConnection::~WaylandConnection()
{
    wl_display_disconnect(display_);
}

void WaylandConnection::cut()
{
    cut_ = true;
    shutdown(socket_, SHUT_RDWR);
}

std::chrono::nanoseconds WaylandConnection::time_to(Clock::time_point deadline)
{
    constexpr std::chrono::nanoseconds longest = std::chrono::seconds(1);
    if (deadline == Clock::time_point::max())
        return longest;
    return std::clamp<std::chrono::nanoseconds>(deadline - Clock::now(), {}, longest);
}

void WaylandConnection::exchange(std::chrono::nanoseconds wait)
{
    while (wl_display_prepare_read(display_) != 0)
        if (wl_display_dispatch_pending(display_) < 0)
            return;
    const bool full = wl_display_flush(display_) < 0 && errno == EAGAIN;
    pollfd ready{socket_, static_cast<short>(full ? POLLIN | POLLOUT : POLLIN), 0};
    constexpr std::chrono::nanoseconds second = std::chrono::seconds(1);
    const timespec limit{wait / second, (wait % second).count()};
    const bool readable = ppoll(&ready, 1, &limit, nullptr) > 0 && (ready.revents & ~POLLOUT);
    if (readable)
        wl_display_read_events(display_);
    else
        wl_display_cancel_read(display_);
    wl_display_dispatch_pending(display_);
}

} // namespace zu3host
