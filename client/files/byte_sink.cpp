#include "files/byte_sink.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>

#include "files/sink_thread.h"

namespace client {
namespace {

/** A write that is through this fast needs no second look. */
constexpr std::chrono::milliseconds moment(5);

/** What a disk may be behind: seconds of the highest rates. */
constexpr uint64_t most_on_its_way = 8 << 20;

} // namespace

ByteSink::ByteSink(const std::string& path, bool overwrite, int standard_output,
                   StopSignals& signals)
{
    if (is_standard_output(path)) {
        thread_ = SinkThread::start(standard_output, UniqueFd());
        return;
    }
    file_.emplace(path, overwrite, signals);
    // Of its own, since the thread may outlive the file's.
    UniqueFd fd(fcntl(file_->fd(), F_DUPFD_CLOEXEC, 3));
    const int number = fd.get();
    thread_ = SinkThread::start(number, std::move(fd));
    if (!file_->named_pipe())
        watch_.emplace(*file_);
    if (file_->regular())
        allowance_ = most_on_its_way;
}

bool ByteSink::pending() const
{
    return unfinished_ && thread_->backlog() > allowance_;
}

ByteSink::~ByteSink()
{
    thread_->end();
}

int ByteSink::fd() const
{
    return thread_->fd();
}

uint64_t ByteSink::delivered() const
{
    return thread_->delivered();
}

std::optional<std::string> ByteSink::problem()
{
    if (!watch_)
        return std::nullopt;
    watch_->expect_size(delivered());
    return watch_->problem();
}

std::optional<std::string> ByteSink::problem_at_end()
{
    if (!watch_)
        return std::nullopt;
    watch_->expect_size(delivered());
    return watch_->problem_at_end();
}

int ByteSink::empty_file()
{
    return !unfinished_ && ftruncate(file_->fd(), 0) == 0 ? 0 : errno;
}

ByteSink::State ByteSink::begin(std::span<const uint8_t> data, bool at_begin)
{
    if (data.empty())
        return State::ready;
    if (watch_)
        watch_->expect_size(delivered());
    thread_->begin(data, at_begin);
    unfinished_ = true;
    const State state = allowance_ > 0 ? look() : finish(Clock::now() + moment);
    return state == State::pending && !pending() ? State::ready : state;
}

ByteSink::State ByteSink::put(std::span<const uint8_t> data)
{
    return begin(data, false);
}

ByteSink::State ByteSink::put_at_begin(std::span<const uint8_t> data)
{
    return begin(data, true);
}

ByteSink::State ByteSink::look()
{
    if (!unfinished_)
        return State::ready;
    const auto error = thread_->take_result();
    if (!error)
        return State::pending;
    unfinished_ = false;
    error_ = *error;
    if (error_ == 0)
        return State::ready;
    return error_ == EPIPE ? State::reader_gone : State::failed;
}

ByteSink::State ByteSink::finish(TimePoint limit)
{
    State state = look();
    while (state == State::pending && Clock::now() < limit) {
        pollfd taken{fd(), POLLIN, 0};
        poll(&taken, 1, poll_timeout(limit));
        state = look();
    }
    return state;
}

} // namespace client
