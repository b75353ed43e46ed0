#include "running/control_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>

#include "process/messages.h"

namespace client {
namespace {

constexpr size_t most_peers = 8;
constexpr auto peer_patience = std::chrono::seconds(2);
constexpr itimerspec until_retry{.it_interval = {},
                                 .it_value = {.tv_sec = 0, .tv_nsec = 250'000'000}};

[[noreturn]] void fail_to_listen()
{
    throw Failure(error_text(errno));
}

bool poll_for(int events, int fd)
{
    epoll_event event = {.events = EPOLLIN, .data = {.fd = fd}};
    return epoll_ctl(events, EPOLL_CTL_ADD, fd, &event) == 0;
}

} // namespace

ControlSocket::ControlSocket(bool verbose)
{
    try {
        folder_.emplace();
        folder_->processes(); // removes the sockets of dead recorders
        listen();
    } catch (const Failure& failure) {
        events_ = common::Descriptor();
        if (verbose)
            print_message(std::string("'screenrecord control' cannot find this recorder: ") +
                          failure.what());
    }
}

ControlSocket::~ControlSocket()
{
    if (events_)
        unlinkat(folder_->fd(), ControlFolder::socket_name(getpid()).c_str(), 0);
}

// Renames the socket once it listens: bound but silent, it would look like a dead recorder's.
void ControlSocket::listen()
{
    const std::string name = ControlFolder::socket_name(getpid()), unready = "." + name;
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    folder_->path_of(unready).copy(address.sun_path, sizeof address.sun_path - 1);
    unlinkat(folder_->fd(), unready.c_str(), 0);
    listener_ =
        common::Descriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    events_ = common::Descriptor(epoll_create1(EPOLL_CLOEXEC));
    retry_ = common::Descriptor(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!listener_ || !events_ || !retry_ || !poll_for(events_.get(), retry_.get()) ||
        bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        fail_to_listen();
    if (::listen(listener_.get(), most_peers) != 0 || !poll_for(events_.get(), listener_.get()) ||
        renameat(folder_->fd(), unready.c_str(), folder_->fd(), name.c_str()) != 0) {
        unlinkat(folder_->fd(), unready.c_str(), 0);
        fail_to_listen();
    }
}

void ControlSocket::serve(const Handle& handle)
{
    if (!events_)
        return;
    accept_peers();
    std::erase_if(peers_, [&](Peer& peer) { return !peer.asked && hear(peer, handle); });
    drop_silent();
}

// A connection that the system has no descriptor for would keep waking the poll.
void ControlSocket::pause_accepting()
{
    epoll_ctl(events_.get(), EPOLL_CTL_DEL, listener_.get(), nullptr);
    timerfd_settime(retry_.get(), 0, &until_retry, nullptr);
}

void ControlSocket::resume_accepting()
{
    uint64_t expirations = 0;
    if (read(retry_.get(), &expirations, sizeof expirations) > 0)
        poll_for(events_.get(), listener_.get());
}

void ControlSocket::accept_peers()
{
    resume_accepting();
    for (size_t accepted = 0; accepted < most_peers; ++accepted) {
        common::Descriptor socket(
            accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket && errno != EAGAIN && errno != EINTR && errno != ECONNABORTED)
            pause_accepting();
        if (!socket)
            return;
        if (!peer_is_own_user(socket.get()) || !poll_for(events_.get(), socket.get()))
            continue;
        if (peers_.size() == most_peers)
            make_room();
        peers_.push_back({.ticket = ++last_ticket_,
                          .socket = std::move(socket),
                          .since = Clock::now(),
                          .asked = false});
    }
}

// Drops the oldest peer that has not asked: the others' answers are due.
void ControlSocket::make_room()
{
    const auto silent =
        std::find_if(peers_.begin(), peers_.end(), [](const Peer& peer) { return !peer.asked; });
    peers_.erase(silent == peers_.end() ? peers_.begin() : silent);
}

void ControlSocket::drop_silent()
{
    const TimePoint limit = Clock::now() - peer_patience;
    std::erase_if(peers_, [limit](const Peer& peer) { return !peer.asked && peer.since < limit; });
}

/** Reads a peer's line. Returns true if the peer can be dropped. */
bool ControlSocket::hear(Peer& peer, const Handle& handle)
{
    std::string line(longest_control_text, '\0');
    const ssize_t size = recv(peer.socket.get(), line.data(), line.size(), MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return false;
    if (size <= 0)
        return true;
    line.resize(static_cast<size_t>(size));
    const auto text = handle(line, peer.ticket);
    if (text)
        send(peer.socket.get(), text->data(), text->size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    else // further bytes are not read and would keep waking the poll
        epoll_ctl(events_.get(), EPOLL_CTL_DEL, peer.socket.get(), nullptr);
    peer.asked = !text;
    return text.has_value();
}

void ControlSocket::answer(Ticket ticket, const std::string& text)
{
    std::erase_if(peers_, [&](const Peer& peer) {
        if (peer.ticket != ticket)
            return false;
        send(peer.socket.get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        return true;
    });
}

} // namespace client
