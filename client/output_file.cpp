#include "output_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

#include "exit_code.h"
#include "messages.h"

namespace client {
namespace {

[[noreturn]] void fail(const std::string& path, const std::string& reason)
{
    throw Failure("cannot write to " + path + ": " + reason);
}

[[noreturn]] void fail_for_existing(const std::string& path)
{
    throw Failure("cannot write to " + path + ": it exists already; -y overwrites it", ExitCode::usage);
}

std::string folder_of(const std::string& path)
{
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    return folder.empty() ? "." : folder.string();
}

/** Whether the last part of a path may be a symbolic link: only where nobody but the kernel makes them. */
bool link_is_trusted(const std::string& path)
{
    return path.starts_with("/proc/") || path.starts_with("/dev/fd/");
}

/** A new file that only its owner may read, whatever the umask; none where anything of that name is. */
UniqueFd create_private(const std::string& path)
{
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fd)
        fchmod(fd.get(), 0600);
    return fd;
}

/** Renames where nothing is of the new name; several network file systems know no such rename, but links. */
int rename_to_free_name(const std::string& from, const std::string& to)
{
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL || link(from.c_str(), to.c_str()) != 0)
        return -1;
    unlink(from.c_str());
    return 0;
}

void check_existing(const std::string& path, const struct stat& found, bool overwrite)
{
    if (S_ISLNK(found.st_mode))
        fail(path, "it is a symbolic link, which somebody may have planted; remove it or name its target");
    if (S_ISDIR(found.st_mode))
        fail(path, "it is a folder");
    if (S_ISREG(found.st_mode) && !overwrite)
        fail_for_existing(path);
    if (access(path.c_str(), W_OK) != 0)
        fail(path, error_text(errno));
}

} // namespace

bool is_standard_output(const std::string& path)
{
    return path == "-" || path == "/dev/stdout" || path == "/dev/fd/1" || path == "/proc/self/fd/1";
}

bool is_same_file(const std::string& one, const std::string& other)
{
    std::error_code error;
    if (std::filesystem::equivalent(one, other, error))
        return true;
    const auto whole = [&error](const std::string& path) {
        return std::filesystem::weakly_canonical(std::filesystem::absolute(path, error), error);
    };
    const std::filesystem::path first = whole(one);
    return !first.empty() && first == whole(other);
}

void check_output_path(const std::string& path, bool overwrite)
{
    if (path.empty())
        throw Failure("cannot write to '': a file needs a name", ExitCode::usage);
    struct stat found = {};
    if ((link_is_trusted(path) ? stat : lstat)(path.c_str(), &found) == 0)
        return check_existing(path, found, overwrite);
    if (errno != ENOENT)
        fail(path, error_text(errno));
    const std::string folder = folder_of(path);
    if (stat(folder.c_str(), &found) != 0)
        fail(path, "there is no folder " + folder);
    if (access(folder.c_str(), W_OK | X_OK) != 0)
        fail(path, "the folder " + folder + " is not writable: " + error_text(errno));
}

void check_whole_file_path(const std::string& path, bool overwrite)
{
    check_output_path(path, overwrite);
    struct stat found = {};
    if (lstat(path.c_str(), &found) == 0 && !S_ISREG(found.st_mode))
        fail(path,
             "it is no ordinary file, and one would take its place; name an ordinary file or a new one");
}

OutputFile::OutputFile(std::string path, bool overwrite) : path_(std::move(path))
{
    check_output_path(path_, overwrite);
    fd_ = create_private(path_);
    created_ = static_cast<bool>(fd_);
    if (!fd_ && errno == EEXIST)
        open_existing(overwrite);
    if (!fd_)
        fail(path_, error_text(errno));
}

void OutputFile::open_existing(bool overwrite)
{
    const int links = link_is_trusted(path_) ? 0 : O_NOFOLLOW;
    fd_ = UniqueFd(open(path_.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK | links));
    if (!fd_ || !regular())
        return;
    if (!overwrite) // it came after the check
        fail_for_existing(path_);
    if (ftruncate(fd_.get(), 0) != 0)
        fail(path_, error_text(errno));
}

OutputFile::~OutputFile()
{
    if (fd_ && created_ && size() == 0)
        unlink(path_.c_str());
}

uint64_t OutputFile::size() const
{
    struct stat now = {};
    return fstat(fd_.get(), &now) == 0 && S_ISREG(now.st_mode) ? static_cast<uint64_t>(now.st_size) : 0;
}

bool OutputFile::regular() const
{
    struct stat now = {};
    return fstat(fd_.get(), &now) == 0 && S_ISREG(now.st_mode);
}

WholeFile::WholeFile(std::string path) : path_(std::move(path))
{
    check_whole_file_path(path_, true); // whether it may replace a file is said when it gets its name
    beside_ = path_ + format_text(".%d.part", static_cast<int>(getpid()));
    unlink(beside_.c_str()); // what a killed process of this number, or somebody who guessed it, left there
    fd_ = create_private(beside_);
    if (!fd_) {
        beside_.clear();
        fail(path_, error_text(errno));
    }
}

WholeFile::~WholeFile()
{
    if (!beside_.empty())
        unlink(beside_.c_str());
}

void WholeFile::write(const void* data, size_t size)
{
    const char* next = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd_.get(), next, size);
        if (n < 0)
            fail(path_, error_text(errno));
        next += n;
        size -= static_cast<size_t>(n);
    }
}

void WholeFile::put_in_place(bool overwrite)
{
    if ((overwrite ? rename(beside_.c_str(), path_.c_str()) : rename_to_free_name(beside_, path_)) != 0)
        errno == EEXIST ? fail_for_existing(path_) : fail(path_, error_text(errno));
    beside_.clear();
}

} // namespace client
