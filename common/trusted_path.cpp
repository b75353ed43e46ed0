#include "common/trusted_path.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <utility>

namespace common {
namespace {

constexpr mode_t private_mode = 0600;
constexpr int most_links = 8;

bool is_proc(int folder)
{
    struct statfs volume = {};
    return fstatfs(folder, &volume) == 0 && volume.f_type == PROC_SUPER_MAGIC;
}

/** Whether it is /dev, in which only root makes links. */
bool is_dev(int folder)
{
    struct stat here = {}, dev = {};
    return fstat(folder, &here) == 0 && stat("/dev", &dev) == 0 && is_one_file(here, dev) &&
           here.st_uid == 0 && (here.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

/**
 * Folder and name of a path; the folder ends in a slash, or is empty for the one that the path
 * starts from.
 */
std::pair<std::string, std::string> split(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos
               ? std::pair(std::string(), path)
               : std::pair(path.substr(0, slash + 1), path.substr(slash + 1));
}

std::string target_of_link(int folder, const std::string& name)
{
    char target[PATH_MAX];
    const ssize_t length = readlinkat(folder, name.c_str(), target, sizeof target);
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

} // namespace

TrustedPath::TrustedPath(const std::string& path)
{
    lead_to(AT_FDCWD, path);
    for (int links = 0; error_ == 0 && !in_proc_ && is_dev(folder_.get()); ++links) {
        const std::string target = target_of_link(folder_.get(), name_);
        if (target.empty())
            return;
        if (links == most_links)
            error_ = ELOOP;
        else
            lead_to(folder_.get(), target);
    }
}

void TrustedPath::lead_to(int start, const std::string& path)
{
    const auto [folder, name] = split(path);
    Descriptor opened(
        openat(start, folder.empty() ? "." : folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    error_ = opened ? 0 : errno;
    if (!opened)
        return;
    folder_ = std::move(opened);
    name_ = name;
    in_proc_ = is_proc(folder_.get());
}

int TrustedPath::status(struct stat& found) const
{
    const int flags = name_.empty() ? AT_EMPTY_PATH : in_proc_ ? 0 : AT_SYMLINK_NOFOLLOW;
    return fstatat(folder_.get(), name_.c_str(), &found, flags);
}

Descriptor TrustedPath::open(int flags) const
{
    const char* name = name_.empty() ? "." : name_.c_str();
    return Descriptor(openat(folder_.get(), name, flags | O_CLOEXEC | (in_proc_ ? 0 : O_NOFOLLOW)));
}

Descriptor TrustedPath::create_beside(const std::string& name, int flags) const
{
    Descriptor fresh(
        openat(folder_.get(), name.c_str(), flags | O_CREAT | O_EXCL | O_CLOEXEC, private_mode));
    if (fresh)
        // the umask may have cleared even the owner's permissions
        fchmod(fresh.get(), private_mode);
    return fresh;
}

Objection objection_to_write(const struct stat& found)
{
    if (S_ISDIR(found.st_mode))
        return Objection::folder;
    if (S_ISCHR(found.st_mode))
        return Objection::none;
    if (!S_ISREG(found.st_mode) && !S_ISFIFO(found.st_mode))
        return Objection::special;
    return found.st_uid == geteuid() ? Objection::none : Objection::foreign;
}

bool is_one_file(const struct stat& one, const struct stat& other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

} // namespace common
