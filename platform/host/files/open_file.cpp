#include "files/open_file.h"

#include "base/host_log.h"
#include "os/task_deletion.h"
#include "statistics/counters.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <common/clock.h>
#include <common/trusted_path.h>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string_view>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <utility>

namespace zu3host {

namespace {

// The most that one read or write of Linux moves.
constexpr size_t greatest_transfer = 0x7ffff000;

bool is_regular(int fd)
{
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

/** A descriptor, or why there is none. */
struct Opened {
    common::Descriptor fd;
    const char* refusal = nullptr;
};

Opened failed(int error)
{
    return {{},
            error == ELOOP ? "it is a symbolic link, which is not followed for writing"
                           : strerror(error)};
}

/** Opens an existing file: checks its descriptor, and only then truncates it. */
Opened open_existing(const common::TrustedPath& place, int flags)
{
    common::Descriptor fd = place.open(flags & ~(O_CREAT | O_TRUNC));
    struct stat status;
    if (!fd || fstat(fd.get(), &status) != 0)
        return failed(errno);
    const common::Objection objection = common::objection_to_write(status);
    if (objection == common::Objection::foreign && !place.in_proc()) // those are open already
        return {{}, "it belongs to another user, who may read what is written"};
    if (objection == common::Objection::special)
        return {{}, "it is no ordinary file"};
    if ((flags & O_TRUNC) != 0 && S_ISREG(status.st_mode) && ftruncate(fd.get(), 0) != 0)
        return failed(errno);
    return {std::move(fd)};
}

/**
 * Opens a file to be written, or makes one that only its owner may read, since it may show a
 * screen.
 */
Opened open_to_write(const char* name, int flags)
{
    const common::TrustedPath place(name);
    if (place.error() != 0)
        return failed(place.error());
    if (flags & O_CREAT) {
        common::Descriptor fresh = place.create_private(flags & ~O_TRUNC);
        if (fresh)
            return {std::move(fresh)};
        if (errno != EEXIST)
            return failed(errno);
    }
    return open_existing(place, flags);
}

Opened open_to_read(const char* name, int flags)
{
    common::Descriptor fd(::open(name, flags | O_CLOEXEC));
    struct stat status;
    if (!fd || fstat(fd.get(), &status) != 0)
        return failed(errno);
    if (S_ISDIR(status.st_mode))
        return failed(EISDIR);
    return {std::move(fd)};
}

/**
 * Opens without waiting. Afterwards ordinary files wait as usual; the others answer EAGAIN
 * instead.
 */
Opened open_now(const char* name, int flags)
{
    flags |= O_NOCTTY | O_NONBLOCK;
    Opened opened =
        (flags & O_ACCMODE) == O_RDONLY ? open_to_read(name, flags) : open_to_write(name, flags);
    if (opened.fd && is_regular(opened.fd.get()))
        fcntl(opened.fd.get(), F_SETFL, fcntl(opened.fd.get(), F_GETFL) & ~O_NONBLOCK);
    return opened;
}

/** The name of a file for messages; resolves one that only this process understands. */
std::string name_to_show(const char* name)
{
    char target[PATH_MAX];
    if (!std::string_view(name).starts_with("/proc/self/fd/"))
        return name;
    const ssize_t length = readlink(name, target, sizeof target);
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : name;
}

/**
 * Waits for the other end of a pipe; an errno, ECANCELED when the task on this thread is being
 * deleted.
 */
int wait_until_ready(int fd, short event)
{
    pollfd waited[] = {{fd, event, 0}, {deletion_on_this_thread(), POLLIN, 0}};
    if (poll(waited, 2, -1) < 0)
        return errno == EINTR ? 0 : errno;
    return waited[1].revents != 0 ? ECANCELED : 0;
}

/**
 * Whether it is a pipe that has had no writer yet since it was opened; none any more is the end of
 * a file.
 */
bool awaits_its_first_writer(int fd)
{
    struct stat status;
    pollfd pipe{fd, POLLIN, 0};
    return fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode) && poll(&pipe, 1, 0) == 0;
}

/** Readable once writes are given up; -1 if the system gives no event. Never closed. */
int given_up_event()
{
    static const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return event;
}

/**
 * While it lives, the statistics have the time since which a write waits; of several writes, the
 * earliest.
 */
class WriteWait {
public:
    WriteWait()
    {
        int64_t none = 0;
        first_ = counters().write_waits_since_us.compare_exchange_strong(
            none, common::monotonic_us(), std::memory_order_relaxed);
    }
    ~WriteWait()
    {
        if (first_)
            counters().write_waits_since_us.store(0, std::memory_order_relaxed);
    }
    WriteWait(const WriteWait&) = delete;
    WriteWait& operator=(const WriteWait&) = delete;

private:
    bool first_;
};

/**
 * Repeats a transfer until `size` bytes are done, and waits for `event` of the descriptor in
 * between. Returns the bytes; `error` is the errno that ended it early, otherwise 0.
 */
template <typename Step>
size_t transfer_all(int fd, short event, size_t size, int& error, Step step)
{
    size_t done = 0;
    error = 0;
    while (done < size && error == 0) {
        const ssize_t moved = step(done, std::min(size - done, greatest_transfer));
        if (moved > 0)
            done += static_cast<size_t>(moved);
        else if (moved == 0 && !awaits_its_first_writer(fd))
            break;
        else if (moved == 0 || errno == EAGAIN)
            error = wait_until_ready(fd, event);
        else if (errno != EINTR)
            error = errno;
    }
    return done;
}

} // namespace

std::shared_ptr<OpenFile> OpenFile::open(const char* name, int flags)
{
    Opened opened = open_now(name, flags);
    if (!opened.fd) {
        HOST_LOGE("Cannot open \"%s\": %s.", name, opened.refusal);
        return nullptr;
    }
    const bool ordinary = is_regular(opened.fd.get());
    std::unique_ptr<common::DiskProcess> disk;
    if ((flags & O_ACCMODE) != O_RDONLY && ordinary)
        disk = common::DiskProcess::start(opened.fd.get());
    const bool written_in_order = (flags & O_ACCMODE) == O_WRONLY && ordinary;
    return std::make_shared<OpenFile>(name_to_show(name), std::move(opened.fd), std::move(disk),
                                      written_in_order);
}

OpenFile::~OpenFile()
{
    if (fd_) // the last call has ended behind the close
        write_unfinished(unfinished_.whole_at_end());
}

void give_up_writes()
{
    eventfd_write(given_up_event(), 1);
}

int64_t OpenFile::read(void* dst, size_t size)
{
    const std::lock_guard lock(in_use_);
    int error = 0;
    const size_t done = transfer_all(fd_.get(), POLLIN, size, error, [&](size_t at, size_t bytes) {
        return ::read(fd_.get(), static_cast<char*>(dst) + at, bytes);
    });
    if (error == 0)
        return static_cast<int64_t>(done);
    if (error == ECANCELED)
        // a part of a picture would count as the last one
        return -1;
    if (!std::exchange(failure_logged_, true))
        HOST_LOGE("Cannot read \"%s\": %s.", name_.c_str(), strerror(error));
    return done > 0 ? static_cast<int64_t>(done) : -1;
}

uint64_t OpenFile::write_items(const void* src, uint64_t item_bytes, uint64_t count_of_items)
{
    const std::lock_guard lock(in_use_);
    if (written_in_order_ && unfinished_.append(src, item_bytes * count_of_items))
        return write_unfinished(unfinished_.whole()) ? count_of_items : 0;
    return write_unfinished(unfinished_.size()) ? write_now(src, item_bytes, count_of_items) : 0;
}

bool OpenFile::write_unfinished(size_t bytes)
{
    if (bytes == 0)
        return true;
    const bool written = write_now(unfinished_.data(), bytes, 1) == 1;
    if (written)
        unfinished_.remove(bytes);
    else
        unfinished_.skip_to_random_access();
    return written;
}

uint64_t OpenFile::write_now(const void* src, uint64_t item_bytes, uint64_t count_of_items)
{
    written_ = true;
    int error = 0;
    const size_t size = item_bytes * count_of_items;
    const auto* const bytes = static_cast<const uint8_t*>(src);
    const size_t done =
        disk_ ? write_by_process(bytes, size, error) : write_here(bytes, size, error);
    const uint64_t whole = done / item_bytes;
    if (done < size && error == ECANCELED && disk_) {
        // The current part may still be written, so the end of the file must not be cut.
        if (!std::exchange(failure_logged_, true))
            HOST_LOGW(
                "The disk of \"%s\" does not respond. Unwritten data may be missing from the file.",
                name_.c_str());
    } else if (done < size) {
        count_failure(error ? error : EIO);
        cut_partial_item(done % item_bytes);
    }
    count(counters().bytes_written, whole * item_bytes);
    return whole;
}

size_t OpenFile::write_here(const uint8_t* src, size_t size, int& error)
{
    return transfer_all(fd_.get(), POLLOUT, size, error, [&](size_t at, size_t bytes) {
        return ::write(fd_.get(), src + at, bytes);
    });
}

size_t OpenFile::write_by_process(const uint8_t* src, size_t size, int& error)
{
    error = wait_for_earlier_write();
    if (error != 0)
        return 0;
    size_t done = 0;
    while (done < size && error == 0) {
        disk_->write(src + done, size - done);
        error = wait_for_disk();
        if (error != 0)
            break;
        const common::DiskProcess::Answer answer = disk_->answer();
        done += answer.written;
        error = answer.error;
        if (answer.written == 0 && error == 0)
            error = EIO;
    }
    return done;
}

// Waits for a write that an earlier call gave up. Until it ends, the kernel locks the file's
// position.
int OpenFile::wait_for_earlier_write()
{
    if (!disk_ || !disk_->busy())
        return 0;
    const int error = wait_for_disk();
    if (error == 0)
        static_cast<void>(disk_->answer());
    return error;
}

int OpenFile::wait_for_disk()
{
    const WriteWait wait;
    pollfd waited[] = {{disk_->fd(), POLLIN, 0},
                       {deletion_on_this_thread(), POLLIN, 0},
                       {given_up_event(), POLLIN, 0}};
    while (poll(waited, std::size(waited), -1) < 0)
        if (errno != EINTR)
            return errno;
    return waited[0].revents != 0 ? 0 : ECANCELED;
}

void OpenFile::count_failure(int error)
{
    count(counters().write_failures);
    counters().last_write_errno.store(error, std::memory_order_relaxed);
    if (!failure_logged_)
        HOST_LOGE("Cannot write to \"%s\": %s. The rest is missing from the file.", name_.c_str(),
                  strerror(error));
    failure_logged_ = true;
}

void OpenFile::cut_partial_item(uint64_t partial_bytes)
{
    const off_t position = lseek(fd_.get(), 0, SEEK_CUR);
    struct stat status;
    // In the middle of a file, or if nothing can be cut, the part stays.
    if (partial_bytes == 0 || position < 0 || fstat(fd_.get(), &status) != 0 ||
        !S_ISREG(status.st_mode) || status.st_size != position)
        return;
    const off_t end_of_whole_items = position - static_cast<off_t>(partial_bytes);
    if (ftruncate(fd_.get(), end_of_whole_items) == 0)
        lseek(fd_.get(), end_of_whole_items, SEEK_SET);
}

bool OpenFile::seek(int64_t offset, int whence)
{
    const std::lock_guard lock(in_use_);
    const bool written = write_unfinished(unfinished_.size());
    written_in_order_ = false;
    return wait_for_earlier_write() == 0 && lseek(fd_.get(), offset, whence) >= 0 && written;
}

bool OpenFile::close()
{
    const std::unique_lock lock(in_use_, std::try_to_lock);
    if (!lock) {
        HOST_LOGE("\"%s\" is still in use and will be closed later.", name_.c_str());
        return false;
    }
    const bool whole = write_unfinished(unfinished_.whole_at_end());
    // Starts writeback without a wait, since a busy disk needs seconds and a close must be short.
    // An error of the disk shows at the next use of the file.
    int error = 0;
    if (disk_)
        // the process starts writeback itself
        disk_.reset();
    else if (written_ && is_regular(fd_.get()))
        sync_file_range(fd_.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
    // Linux has released the descriptor regardless of close's result.
    if (::close(fd_.release()) != 0 && errno != EINTR)
        error = errno;
    if (error != 0)
        HOST_LOGE("\"%s\" may be incomplete on its disk: %s.", name_.c_str(), strerror(error));
    return error == 0 && whole;
}

} // namespace zu3host
