#include "common/line_writer.h"

#include "common/signals.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace common {

namespace {

/** Longest wait for a line to be written. */
constexpr std::chrono::milliseconds moment(100);

void wait_for_room(int fd)
{
    pollfd room{fd, POLLOUT, 0};
    poll(&room, 1, -1);
}

} // namespace

int LineWriter::put(std::string_view text)
{
    if (is_copy())
        return write_directly(text);
    std::unique_lock lock(mutex_);
    if (!ensure_thread())
        return write_directly(text);
    if (!append(text))
        return -EAGAIN;
    if (stuck_)
        return static_cast<int>(text.size());
    const uint64_t mine = appended_;
    stuck_ = !written_.wait_for(lock, moment, [&] { return done_ >= mine; });
    return stuck_ || last_error_ == 0 ? static_cast<int>(text.size()) : -last_error_;
}

void LineWriter::put_if_idle(std::string_view text)
{
    if (is_copy()) {
        write_directly(text);
        return;
    }
    const std::lock_guard lock(mutex_);
    if (!ensure_thread())
        write_directly(text);
    else if (done_ == appended_)
        append(text);
}

bool LineWriter::flush(Time limit)
{
    if (process_ != getpid())
        return true;
    std::unique_lock lock(mutex_);
    return written_.wait_until(lock, limit, [this] { return done_ == appended_; });
}

// A child of fork() has the object without its thread, and perhaps with a mutex that stays locked.
bool LineWriter::is_copy() const
{
    return process_ != 0 && process_ != getpid();
}

// Started with the first line, so a program that logs nothing gets no additional thread.
bool LineWriter::ensure_thread()
{
    if (process_ != 0)
        return true;
    const SignalsBlocked guard;
    try {
        std::thread([this] { run(); }).detach();
    } catch (const std::exception&) {
        return false;
    }
    process_ = getpid();
    return true;
}

/** Without a thread: writes at most what fits without waiting. */
int LineWriter::write_directly(std::string_view text) const
{
    pollfd room{fd_, POLLOUT, 0};
    if (poll(&room, 1, 0) != 1)
        return -EAGAIN;
    const BrokenPipeGuard guard;
    const ssize_t written = write(fd_, text.data(), std::min(text.size(), greatest_write));
    return written < 0 ? -errno : static_cast<int>(written);
}

bool LineWriter::append(std::string_view text)
{
    const size_t writes = (text.size() + greatest_write - 1) / greatest_write;
    if (text.size() + writes * sizeof(uint32_t) > capacity - used_)
        return false;
    while (!text.empty()) {
        const auto size = static_cast<uint32_t>(std::min(text.size(), greatest_write));
        copy_in(&size, sizeof size);
        copy_in(text.data(), size);
        text.remove_prefix(size);
        ++appended_;
    }
    filled_.notify_one();
    return true;
}

void LineWriter::copy_in(const void* data, size_t size)
{
    const size_t end = (begin_ + used_) % capacity;
    const size_t first = std::min(size, capacity - end);
    std::memcpy(bytes_.data() + end, data, first);
    std::memcpy(bytes_.data(), static_cast<const char*>(data) + first, size - first);
    used_ += size;
}

void LineWriter::copy_out(void* data, size_t size)
{
    const size_t first = std::min(size, capacity - begin_);
    std::memcpy(data, bytes_.data() + begin_, first);
    std::memcpy(static_cast<char*>(data) + first, bytes_.data(), size - first);
    begin_ = (begin_ + size) % capacity;
    used_ -= size;
}

size_t LineWriter::pop(std::array<char, greatest_write>& bytes)
{
    std::unique_lock lock(mutex_);
    filled_.wait(lock, [this] { return used_ > 0; });
    uint32_t size = 0;
    copy_out(&size, sizeof size);
    copy_out(bytes.data(), size);
    return size;
}

void LineWriter::run()
{
    pthread_setname_np(pthread_self(), "lines");
    std::array<char, greatest_write> bytes;
    while (true) {
        const size_t size = pop(bytes);
        int error = 0;
        for (size_t at = 0; at < size && error == 0;) {
            const ssize_t written = write(fd_, bytes.data() + at, size - at);
            if (written >= 0)
                at += static_cast<size_t>(written);
            else if (errno == EAGAIN) // the descriptor was made non-blocking
                wait_for_room(fd_);
            else if (errno != EINTR)
                error = errno;
        }
        const std::lock_guard lock(mutex_);
        last_error_ = error;
        ++done_;
        stuck_ = stuck_ && done_ != appended_;
        written_.notify_all();
    }
}

} // namespace common
