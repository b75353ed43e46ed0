#include "byte_sink.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include "exit_code.h"
#include "messages.h"

namespace client {
namespace {

bool is_named_pipe(const std::string& path)
{
    struct stat found = {};
    return stat(path.c_str(), &found) == 0 && S_ISFIFO(found.st_mode);
}

// Opened so that it does not block, again and again: a blocking open would also block the stop.
UniqueFd open_named_pipe(const std::string& path, StopSignals& signals)
{
    while (true) {
        UniqueFd fd(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        if (fd)
            return fd;
        if (errno != ENXIO)
            throw Failure("cannot write to " + path + ": " + error_text(errno));
        if (signals.wait_until(Clock::now() + std::chrono::milliseconds(50)))
            throw Failure("cannot write to " + path + ": stopped before anybody opened it to read");
    }
}

bool is_regular(int fd)
{
    struct stat now = {};
    return fstat(fd, &now) == 0 && S_ISREG(now.st_mode);
}

} // namespace

ByteSink::ByteSink(const std::string& path, bool overwrite, int standard_output, StopSignals& signals)
{
    if (is_standard_output(path)) {
        fd_ = standard_output;
    } else if (is_named_pipe(path)) {
        named_pipe_ = open_named_pipe(path, signals);
        fd_ = named_pipe_.get();
    } else {
        file_.emplace(path, overwrite);
        fd_ = file_->fd();
        path_ = path;
    }
    paced_ = !is_regular(fd_);
}

ssize_t ByteSink::write_some()
{
    if (!paced_)
        return write(fd_, rest_.data(), rest_.size());
    // The descriptor of a pipe is shared with others, so it is not made non-blocking: what poll() calls
    // writable takes PIPE_BUF bytes without blocking.
    pollfd room{fd_, POLLOUT, 0};
    if (poll(&room, 1, 0) != 1) {
        errno = EAGAIN;
        return -1;
    }
    return write(fd_, rest_.data(), std::min<size_t>(rest_.size(), PIPE_BUF));
}

ByteSink::State ByteSink::put(std::span<const uint8_t> data)
{
    rest_ = data;
    return pump();
}

ByteSink::State ByteSink::pump()
{
    while (!rest_.empty()) {
        const ssize_t n = write_some();
        if (n >= 0) {
            rest_ = rest_.subspan(static_cast<size_t>(n));
            delivered_ += static_cast<uint64_t>(n);
        } else if (errno == EAGAIN) {
            return State::pending;
        } else if (errno != EINTR) {
            error_ = errno;
            rest_ = {};
            return error_ == EPIPE ? State::reader_gone : State::failed;
        }
    }
    return State::ready;
}

ByteSink::State ByteSink::finish(TimePoint limit)
{
    State state = pump();
    while (state == State::pending && Clock::now() < limit) {
        pollfd room{fd_, POLLOUT, 0};
        poll(&room, 1, poll_timeout(limit));
        state = pump();
    }
    return state;
}

} // namespace client
