#include "movie/movie_copy.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/statvfs.h>

#include "movie/movie_module.h"
#include "process/messages.h"

namespace client::movie {
namespace {

/** Longest wait for a stalled disk after a stop, which must end the program within three seconds. */
constexpr std::chrono::milliseconds disk_patience_of_a_stop(2000);

[[noreturn]] void fail(int error)
{
    throw Failure(error_text(error));
}

/** The name of the process. */
constexpr const char* finisher_name = "movie finisher";

using common::TrustedPath;

/** A name in the same folder that cannot be guessed. */
std::string temporary_name()
{
    uint64_t number = 0;
    [[maybe_unused]] const ssize_t got = getrandom(&number, sizeof number, GRND_NONBLOCK);
    return format_text(".screenrecord-%d-%016llx.part", getpid(),
                       static_cast<unsigned long long>(number));
}

/**
 * A temporary file beside the one to replace, removed unless it is put in place. It has no name
 * until then if the file system supports that, so SIGKILL leaves nothing behind.
 */
class Beside {
public:
    Beside(const std::string& path, const struct stat& original) : place_(path), original_(original)
    {
        check_place();
        fd_ =
            common::Descriptor(openat(place_.folder(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
        if (!fd_) {
            const std::string name = temporary_name();
            fd_ = place_.create_beside(name, O_RDWR);
            if (!fd_)
                fail(errno);
            name_ = name;
        }
        // so that no other screenrecord writes to it when it gets its name
        flock(fd_.get(), LOCK_EX | LOCK_NB);
    }
    Beside(const Beside&) = delete;
    Beside& operator=(const Beside&) = delete;
    ~Beside()
    {
        if (!name_.empty())
            unlinkat(place_.folder(), name_.c_str(), 0);
    }

    int fd() const { return fd_.get(); }
    /** @param go_on called last before the name changes */
    void put_in_place(const std::function<bool(double)>& go_on)
    {
        if (fchmod(fd_.get(), original_.st_mode & 07777) != 0 || fsync(fd_.get()) != 0)
            fail(errno);
        if (name_.empty())
            give_name();
        check_place();
        if (!go_on(1))
            throw Failure("it was interrupted");
        if (renameat(place_.folder(), name_.c_str(), place_.folder(), place_.name().c_str()) != 0)
            fail(errno);
        name_.clear();
    }

private:
    void check_place() const
    {
        struct stat named = {};
        if (place_.error() != 0 || place_.status(named) != 0 ||
            !common::is_one_file(named, original_))
            throw Failure("it was renamed");
    }
    void give_name()
    {
        const std::string name = temporary_name();
        if (linkat(AT_FDCWD, format_text("/proc/self/fd/%d", fd_.get()).c_str(), place_.folder(),
                   name.c_str(), AT_SYMLINK_FOLLOW) != 0)
            fail(errno);
        name_ = name;
    }

    const TrustedPath place_;
    const struct stat original_;
    std::string name_;
    common::Descriptor fd_;
};

void check_room(int fd, off_t size)
{
    struct statvfs volume = {};
    if (fstatvfs(fd, &volume) == 0 &&
        uint64_t{volume.f_bavail} * volume.f_frsize < static_cast<uint64_t>(size) + (1 << 20))
        throw Failure("its disk has no room for both files");
}

void rewrite(int original, const std::string& path, const std::function<bool(double)>& go_on)
{
    struct stat file = {};
    if (fstat(original, &file) != 0)
        fail(errno);
    check_room(original, file.st_size);
    const common::Descriptor from(
        open(format_text("/proc/self/fd/%d", original).c_str(), O_RDONLY | O_CLOEXEC));
    if (!from)
        fail(errno);
    Beside beside(path, file);
    movie_module().copy({.from = from.get(),
                         .to = beside.fd(),
                         .container = Container::mp4,
                         .own = true,
                         .go_on = go_on});
    beside.put_in_place(go_on);
}

void write_whole_file(int from, const std::string& path, bool overwrite, Container container,
                      const std::function<bool(double)>& go_on)
{
    AtomicFile to(path);
    movie_module().copy({.from = from, .to = to.fd(), .container = container, .go_on = go_on});
    if (fsync(to.fd()) != 0)
        fail(errno);
    if (!go_on(1))
        throw Failure("it was interrupted");
    to.put_in_place(overwrite);
}

} // namespace

// The module is loaded before the process begins, which then loads nothing.
MovieCopy MovieCopy::into_container(int from, const std::string& to, bool overwrite,
                                    Container container)
{
    movie_module();
    MovieCopy copy;
    const int files[] = {from};
    copy.work_ = std::make_unique<AttendedProcess>(
        finisher_name, files,
        [from, &to, overwrite, container](const AttendedProcess::GoOn& go_on) {
            write_whole_file(from, to, overwrite, container, go_on);
            return std::string();
        });
    copy.work_->begin();
    return copy;
}

MovieCopy MovieCopy::with_index_in_front(const OutputFile& file, const std::string& path)
{
    movie_module();
    MovieCopy copy;
    const int files[] = {file.fd()};
    copy.work_ = std::make_unique<AttendedProcess>(
        finisher_name, files, [original = file.fd(), &path](const AttendedProcess::GoOn& go_on) {
            rewrite(original, path, go_on);
            return std::string();
        });
    copy.work_->begin();
    return copy;
}

void MovieCopy::attend(StopSignals& signals, unsigned stops,
                       const std::function<void(double)>& show)
{
    TimePoint limit = TimePoint::max();
    while (!through() && Clock::now() < limit) {
        pollfd waited[] = {{work_->fd(), POLLIN, 0}, {signals.fd(), POLLIN, 0}};
        poll(waited, std::size(waited), 100);
        if (limit == TimePoint::max() && signals.stops() != stops) {
            work_->cancel();
            limit = Clock::now() + disk_patience_of_a_stop;
        }
        show(work_->part());
    }
}

void MovieCopy::finish()
{
    if (!through())
        throw Failure("its disk does not respond");
    work_->finish();
}

} // namespace client::movie
