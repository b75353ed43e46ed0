#include "files/byte_sink.h"

#include <atomic>
#include <cerrno>
#include <common/descriptor.h>
#include <common/disk_process.h>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <optional>
#include <poll.h>
#include <span>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <thread>
#include <utility>
#include <vector>

#include "process/messages.h"

namespace client {

/**
 * A thread that writes pieces in order and signals by a descriptor when all are written. A process
 * writes to an ordinary file, so a stalled disk blocks neither the thread nor the program's exit.
 */
class SinkThread {
public:
    /** @param owned the same descriptor if the thread closes it. Throws Failure. */
    static std::shared_ptr<SinkThread> start(int fd, common::Descriptor owned);

    /** Copies `data`, to be written after the previous data, or `at` a place in the file. */
    void begin(std::span<const uint8_t> data, std::optional<uint64_t> at);
    /** Readable once all is written. */
    int fd() const { return event_.get(); }
    /**
     * The errno of the begun writes, 0 = all is written; nullopt while writing. Returned once.
     */
    std::optional<int> take_result();
    /** Bytes begun and not yet written. */
    uint64_t backlog() const { return backlog_; }
    /** Time since a byte of the backlog was last written; 0 without a backlog. */
    Clock::duration standstill() const
    {
        return backlog_ > 0 ? Clock::now().time_since_epoch() - moved_.load() : Clock::duration();
    }
    /** Bytes written in sequence, without those at a given place. */
    uint64_t delivered() const { return delivered_; }
    /** Whether the file once had fewer bytes than were delivered. */
    bool cut() const { return cut_; }
    /** Ends the thread once all is written. */
    void end();

private:
    SinkThread(int fd, common::Descriptor owned);
    void run();
    struct Piece {
        std::vector<uint8_t> data;
        std::optional<uint64_t> at;
    };
    int write_piece(const Piece& piece);
    ssize_t write_some(const Piece& piece, size_t at);
    ssize_t write_to_disk(const Piece& piece, size_t at);

    const int fd_;
    const common::Descriptor owned_;
    common::Descriptor event_;
    // null: the thread writes itself
    const std::unique_ptr<common::DiskProcess> disk_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::atomic<uint64_t> delivered_{0};
    std::atomic<bool> cut_{false};
    std::atomic<uint64_t> backlog_{0};
    /** Time at which the backlog began or last shrank. */
    std::atomic<Clock::duration> moved_{};
    std::deque<Piece> pieces_;
    // used by the thread only: the errno that ended all writing
    int failed_ = 0;
    bool ended_ = false;
    std::optional<int> result_;
};

namespace {

bool is_regular(int fd)
{
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

} // namespace

SinkThread::SinkThread(int fd, common::Descriptor owned)
    : fd_(fd), owned_(std::move(owned)), event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      disk_(is_regular(fd) ? common::DiskProcess::start(fd) : nullptr)
{
    if (!event_)
        throw Failure("cannot write: " + error_text(errno));
}

std::shared_ptr<SinkThread> SinkThread::start(int fd, common::Descriptor owned)
{
    std::shared_ptr<SinkThread> sink(new SinkThread(fd, std::move(owned)));
    std::thread([sink] { sink->run(); }).detach();
    return sink;
}

void SinkThread::begin(std::span<const uint8_t> data, std::optional<uint64_t> at)
{
    const std::lock_guard lock(mutex_);
    result_.reset();
    if (backlog_ == 0)
        moved_ = Clock::now().time_since_epoch();
    backlog_ += data.size();
    pieces_.push_back({{data.begin(), data.end()}, at});
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
        if (failed_ == 0) // otherwise later pieces would be written to the wrong place
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
            moved_ = Clock::now().time_since_epoch();
            delivered_ += piece.at ? 0 : static_cast<uint64_t>(written);
        }
    }
    return 0;
}

// The process writes at the file's position, which both share.
ssize_t SinkThread::write_to_disk(const Piece& piece, size_t at)
{
    if (piece.at && lseek(fd_, static_cast<off_t>(*piece.at + at), SEEK_SET) < 0)
        return -1;
    disk_->write(piece.data.data() + at, piece.data.size() - at);
    const common::DiskProcess::Answer answer = disk_->answer();
    // Written on behind a cut, the file soon has its old size again.
    cut_ = cut_ || (answer.error == 0 && answer.size_before < delivered_);
    if (piece.at)
        lseek(fd_, 0, SEEK_END);
    errno = answer.error;
    return answer.written == 0 && answer.error != 0 ? -1 : static_cast<ssize_t>(answer.written);
}

ssize_t SinkThread::write_some(const Piece& piece, size_t at)
{
    if (disk_)
        return write_to_disk(piece, at);
    const size_t left = piece.data.size() - at;
    return piece.at ? pwrite(fd_, piece.data.data() + at, left, static_cast<off_t>(*piece.at + at))
                    : write(fd_, piece.data.data() + at, left);
}

namespace {

/** A shorter write counts as immediate. */
constexpr std::chrono::milliseconds moment(5);

/** Longest backlog of a disk: seconds of the highest bit rates. */
constexpr uint64_t most_on_its_way = 8 << 20;

} // namespace

ByteSink::ByteSink(const std::string& path, bool overwrite, int standard_output,
                   StopSignals& signals)
{
    if (is_standard_output(path)) {
        thread_ = SinkThread::start(standard_output, common::Descriptor());
        return;
    }
    file_.emplace(path, overwrite, signals);
    // A duplicate, since the thread may outlive the file.
    common::Descriptor fd(fcntl(file_->fd(), F_DUPFD_CLOEXEC, 3));
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

uint64_t ByteSink::backlog() const
{
    return thread_->backlog();
}

Clock::duration ByteSink::standstill() const
{
    return thread_->standstill();
}

ByteSink::~ByteSink()
{
    if (file_ && look() == State::pending)
        file_->leave();
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

void ByteSink::expect_delivered()
{
    watch_->expect_size(thread_->cut() ? UINT64_MAX : delivered());
}

std::optional<std::string> ByteSink::problem()
{
    if (!watch_)
        return std::nullopt;
    expect_delivered();
    return watch_->problem();
}

std::optional<std::string> ByteSink::problem_at_end()
{
    if (!watch_)
        return std::nullopt;
    expect_delivered();
    return watch_->problem_at_end();
}

std::optional<std::string> ByteSink::missing_end(const std::string& output)
{
    if (look() != State::pending)
        return std::nullopt;
    return "the end is missing from " + output +
           (watch_ ? ": its disk does not respond" : ": its reader reads no more");
}

int ByteSink::cut_file(uint64_t bytes)
{
    return !unfinished_ && ftruncate(file_->fd(), static_cast<off_t>(bytes)) == 0 ? 0 : errno;
}

ByteSink::State ByteSink::begin(std::span<const uint8_t> data, std::optional<uint64_t> at)
{
    if (data.empty())
        return State::ready;
    if (watch_)
        expect_delivered();
    thread_->begin(data, at);
    unfinished_ = true;
    const State state = allowance_ > 0 ? look() : finish(Clock::now() + moment);
    return state == State::pending && !pending() ? State::ready : state;
}

ByteSink::State ByteSink::put(std::span<const uint8_t> data)
{
    return begin(data, std::nullopt);
}

ByteSink::State ByteSink::put_at(uint64_t at, std::span<const uint8_t> data)
{
    return begin(data, at);
}

ByteSink::State ByteSink::look()
{
    if (unfinished_) {
        const auto error = thread_->take_result();
        if (!error)
            return State::pending;
        unfinished_ = false;
        error_ = *error;
    }
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
