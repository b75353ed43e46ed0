#include "files/output_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sys/file.h>
#include <sys/random.h>

#include "process/messages.h"

namespace client {
namespace {

struct flock whole_file(short type)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

/** The recorder that owns this status-file writer; any other process itself. */
pid_t recorder_of(pid_t process)
{
    std::ifstream status(format_text("/proc/%d/status", static_cast<int>(process)));
    bool writer = false;
    for (std::string line; std::getline(status, line);) {
        writer = writer || line == std::string("Name:\t") + status_writer_name;
        if (writer && line.starts_with("PPid:\t"))
            return static_cast<pid_t>(std::atoi(line.c_str() + 6));
    }
    return process;
}

/** The process with this record lock; 0 if it is not visible from here. */
pid_t holder(int fd)
{
    struct flock lock = whole_file(F_WRLCK);
    const bool held = fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    return held ? recorder_of(lock.l_pid) : 0;
}

// flock(2) is the lock, since it lasts while the descriptor is open; a record lock ends when the
// process closes any descriptor of the file. The record lock only tells others the process's id.
void lock_output(int fd, const std::string& path)
{
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        const pid_t process = holder(fd);
        throw Failure(path + " is being recorded by " +
                          (process > 0 ? format_text("process %d", static_cast<int>(process))
                                       : std::string("another process")),
                      ExitCode::usage);
    }
    const bool writes = (fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDONLY;
    const struct flock told = whole_file(writes ? F_WRLCK : F_RDLCK);
    fcntl(fd, F_SETLK, &told);
}

using common::Objection;
using common::TrustedPath;

/** Refuses a path before it is an output. */
[[noreturn]] void refuse_output(const std::string& path, const std::string& reason)
{
    throw Failure("cannot write to " + path + ": " + reason, ExitCode::usage);
}

[[noreturn]] void refuse_existing(const std::string& path)
{
    refuse_output(path, "it exists already; -y overwrites it");
}

[[noreturn]] void refuse_replaced(const std::string& path)
{
    refuse_output(path, "another process is replacing it");
}

/** Reports an output that failed later. */
[[noreturn]] void fail(const std::string& path, int error)
{
    throw Failure("cannot write to " + path + ": " + error_text(error));
}

std::string folder_of(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

void check_folder(const std::string& path, const TrustedPath& place)
{
    if (place.error() == ENOENT)
        refuse_output(path, "there is no folder " + folder_of(path));
    if (place.error() != 0)
        refuse_output(path, error_text(place.error()));
}

void check_existing(const std::string& path, const TrustedPath& place, const struct stat& found,
                    bool overwrite)
{
    if (S_ISLNK(found.st_mode))
        refuse_output(
            path,
            "it is a symbolic link, which another user may have planted; remove it or name its target");
    const Objection objection = common::objection_to_write(found);
    if (objection == Objection::folder)
        refuse_output(path, "it is a folder");
    if (objection == Objection::special)
        refuse_output(path, "it is not an ordinary file");
    if (objection == Objection::foreign &&
        !place.in_proc()) // /proc lists files that are open already
        refuse_output(
            path, "it belongs to another user, who may read what is written; give it another name");
    if (S_ISREG(found.st_mode) && !overwrite)
        refuse_existing(path);
    if (faccessat(place.folder(), place.name().c_str(), W_OK, AT_EACCESS) != 0)
        refuse_output(path, error_text(errno));
}

/** Locks the existing ordinary file, if there is one that this process may read. */
common::Descriptor lock_existing(const std::string& path, const TrustedPath& place)
{
    common::Descriptor fd = place.open(O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (fd)
        lock_output(fd.get(), path);
    return fd;
}

/** Checks that `path` can become an output; returns the status of the existing file, or zeros. */
struct stat examine(const std::string& path, const TrustedPath& place, bool overwrite)
{
    check_folder(path, place);
    struct stat found = {};
    if (place.status(found) == 0) {
        check_existing(path, place, found, overwrite);
        return found;
    }
    if (errno != ENOENT)
        refuse_output(path, error_text(errno));
    if (faccessat(place.folder(), ".", W_OK | X_OK, AT_EACCESS) != 0)
        refuse_output(path,
                      "the folder " + folder_of(path) + " is not writable: " + error_text(errno));
    return {};
}

/** The same for a file that is replaced as a whole. */
void examine_whole_file(const std::string& path, const TrustedPath& place, bool overwrite)
{
    const mode_t kind = examine(path, place, overwrite).st_mode;
    // the rename would replace the link, even one of the kernel
    struct stat named = {};
    const bool is_link =
        fstatat(place.folder(), place.name().c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISLNK(named.st_mode);
    if (is_link || (kind != 0 && !S_ISREG(kind)))
        refuse_output(
            path,
            "it is not an ordinary file, and would be replaced by one; name an ordinary file or a new one");
}

bool place_leads_to(const TrustedPath& place, int fd)
{
    struct stat named = {}, held = {};
    return place.status(named) == 0 && fstat(fd, &held) == 0 && common::is_one_file(named, held);
}

} // namespace

// Some network file systems cannot do it in one step; they use a link.
int rename_to_free_name(int folder, const char* from, const char* to)
{
    if (renameat2(folder, from, folder, to, RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL || linkat(folder, from, folder, to, 0) != 0)
        return -1;
    unlinkat(folder, from, 0);
    return 0;
}

bool is_standard_output(const std::string& path)
{
    if (path == "-")
        return true;
    const TrustedPath place(path);
    struct stat folder = {}, ours = {}, ours_by_thread = {};
    return place.error() == 0 && place.in_proc() && place.name() == "1" &&
           fstat(place.folder(), &folder) == 0 &&
           ((stat("/proc/self/fd", &ours) == 0 && common::is_one_file(folder, ours)) ||
            (stat("/proc/thread-self/fd", &ours_by_thread) == 0 &&
             common::is_one_file(folder, ours_by_thread)));
}

void check_output_path(const std::string& path, bool overwrite)
{
    if (path.empty())
        refuse_output("''", "a file needs a name");
    const TrustedPath place(path);
    if (S_ISREG(examine(path, place, overwrite).st_mode))
        lock_existing(path, place);
}

std::string checked_output(const std::string& path, bool overwrite)
{
    if (!is_standard_output(path))
        check_output_path(path, overwrite);
    return path;
}

void check_whole_file_path(const std::string& path, bool overwrite)
{
    check_output_path(path, overwrite);
    examine_whole_file(path, TrustedPath(path), overwrite);
}

OutputFile::OutputFile(std::string path, bool overwrite, StopSignals& signals)
    : path_(std::move(path)), place_(path_)
{
    examine(path_, place_, overwrite);
    fd_ = place_.create_private(O_WRONLY);
    const bool fresh = static_cast<bool>(fd_);
    if (!fd_ && errno == EEXIST)
        open_existing(overwrite, signals);
    struct stat opened = {};
    if (!fd_ || fstat(fd_.get(), &opened) != 0)
        refuse_output(path_, error_text(errno));
    kind_ = opened.st_mode;
    if (!fresh) // it may have appeared after the check
        check_existing(path_, place_, opened, overwrite);
    if (regular() || named_pipe())
        lock_output(fd_.get(), path_);
    if (!has_its_name())
        refuse_replaced(path_);
    if (!fresh && regular() && ftruncate(fd_.get(), 0) != 0)
        refuse_output(path_, error_text(errno));
    created_ = fresh;
}

void OutputFile::open_existing(bool overwrite, StopSignals& signals)
{
    const mode_t kind = examine(path_, place_, overwrite).st_mode;
    if (S_ISFIFO(kind))
        open_named_pipe(signals);
    else
        fd_ = place_.open(O_WRONLY | O_NONBLOCK | O_NOCTTY);
}

// Tries non-blocking opens: a blocking one would also delay a stop.
void OutputFile::open_named_pipe(StopSignals& signals)
{
    while (true) {
        fd_ = place_.open(O_WRONLY | O_NONBLOCK);
        if (fd_ || errno != ENXIO)
            return;
        if (signals.wait_until(Clock::now() + std::chrono::milliseconds(50)))
            throw Failure("cannot write to " + path_ + ": stopped before it had a reader");
    }
}

void OutputFile::leave()
{
    created_ = false;
}

OutputFile::~OutputFile()
{
    if (fd_ && created_ && size() == 0 && has_its_name())
        unlinkat(place_.folder(), place_.name().c_str(), 0);
}

bool OutputFile::has_its_name() const
{
    return place_leads_to(place_, fd_.get());
}

std::string OutputFile::path_to_reopen() const
{
    const std::string by_descriptor = format_text("/proc/self/fd/%d", fd_.get());
    return access(by_descriptor.c_str(), F_OK) == 0 ? by_descriptor : path_;
}

uint64_t OutputFile::size() const
{
    struct stat now = {};
    return regular() && fstat(fd_.get(), &now) == 0 ? static_cast<uint64_t>(now.st_size) : 0;
}

AtomicFile::AtomicFile(std::string path) : path_(std::move(path))
{
    // put_in_place() is told whether it may replace a file
    check_whole_file_path(path_, true);
    place_.emplace(path_);
    in_place_ = lock_existing(path_, *place_);
    if (in_place_ && !place_leads_to(*place_, in_place_.get()))
        refuse_replaced(path_);
    begin();
}

// Opens the folder again each time, since it can have been moved. The temporary name cannot be
// guessed and does not depend on the file's name, which can have the maximum length.
void AtomicFile::begin()
{
    place_.emplace(path_);
    examine_whole_file(path_, *place_, true);
    uint64_t number = 0;
    [[maybe_unused]] const ssize_t got = getrandom(&number, sizeof number, GRND_NONBLOCK);
    const std::string name = format_text(".screenrecord-%d-%016llx.part", getpid(),
                                         static_cast<unsigned long long>(number));
    fd_ = place_->create_beside(name, O_RDWR);
    if (!fd_)
        refuse_output(path_, error_text(errno));
    beside_ = name;
    lock_output(fd_.get(), path_);
}

AtomicFile::~AtomicFile()
{
    if (!beside_.empty())
        unlinkat(place_->folder(), beside_.c_str(), 0);
}

void AtomicFile::write(const void* data, size_t size)
{
    if (beside_.empty())
        begin();
    const char* next = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd_.get(), next, size);
        if (n < 0)
            fail(path_, errno);
        next += n;
        size -= static_cast<size_t>(n);
    }
}

void AtomicFile::put_in_place(bool overwrite)
{
    const int folder = place_->folder();
    const char* const name = place_->name().c_str();
    if ((overwrite ? renameat(folder, beside_.c_str(), folder, name)
                   : rename_to_free_name(folder, beside_.c_str(), name)) != 0)
        errno == EEXIST ? refuse_existing(path_) : fail(path_, errno);
    beside_.clear();
    place_.reset();
    in_place_ = std::move(fd_);
    fd_ = {};
}

} // namespace client
