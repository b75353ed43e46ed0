#include "files/sink_thread.h"

#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <utility>

#include "process/failure.h"
#include "process/messages.h"

namespace client {

SinkThread::SinkThread(int fd, UniqueFd owned)
    : fd_(fd), owned_(std::move(owned)), event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!event_)
        throw Failure("cannot write: " + error_text(errno));
}

std::shared_ptr<SinkThread> SinkThread::start(int fd, UniqueFd owned)
{
    std::shared_ptr<SinkThread> sink(new SinkThread(fd, std::move(owned)));
    std::thread([sink] { sink->run(); }).detach();
    return sink;
}

void SinkThread::begin(std::span<const uint8_t> data, bool at_begin)
{
    const std::lock_guard lock(mutex_);
    result_.reset();
    backlog_ += data.size();
    pieces_.push_back({{data.begin(), data.end()}, at_begin});
    changed_.notify_one();
}

std::optional<int> SinkThread::take_result()
{
    eventfd_t count = 0;
    eventfd_read(event_.get(), &count);
    const std::lock_guard lock(mutex_);
    return pieces_.empty() ? std::exchange(result_, std::nullopt) : std::nullopt;
}

void SinkThread::end()
{
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_one();
}

void SinkThread::run()
{
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return !pieces_.empty() || ended_; });
        if (pieces_.empty())
            return;
        const Piece& piece = pieces_.front();
        lock.unlock();
        if (failed_ == 0) // else what follows would stand in the wrong place
            failed_ = write_piece(piece);
        lock.lock();
        backlog_ -= piece.data.size();
        pieces_.pop_front();
        if (!pieces_.empty())
            continue;
        result_ = failed_;
        eventfd_write(event_.get(), 1);
    }
}

int SinkThread::write_piece(const Piece& piece)
{
    for (size_t at = 0; at < piece.data.size();) {
        const ssize_t written = write_some(piece, at);
        if (written < 0 &&
            errno ==
                EAGAIN) { // a named pipe, or a descriptor that another process made non-blocking
            pollfd room{fd_, POLLOUT, 0};
            poll(&room, 1, -1);
        } else if (written < 0 && errno == ESPIPE) { // a device that has no begin
            return 0;
        } else if (written < 0 && errno != EINTR) {
            return errno;
        } else if (written > 0) {
            at += static_cast<size_t>(written);
            delivered_ += piece.at_begin ? 0 : static_cast<uint64_t>(written);
        }
    }
    return 0;
}

ssize_t SinkThread::write_some(const Piece& piece, size_t at)
{
    const size_t left = piece.data.size() - at;
    return piece.at_begin ? pwrite(fd_, piece.data.data() + at, left, static_cast<off_t>(at))
                          : write(fd_, piece.data.data() + at, left);
}

} // namespace client
