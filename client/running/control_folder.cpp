#include "running/control_folder.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/socket.h>
#include <sys/stat.h>

#include "command_line/options.h"
#include "process/messages.h"

namespace client {
namespace {

constexpr const char* folder_name = "screenrecord";
constexpr const char* socket_ending = ".control";

/** Opens a folder that only this user may enter. */
common::Descriptor open_private(int at, const char* name, const std::string& shown)
{
    common::Descriptor folder(openat(at, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat found = {};
    if (!folder || fstat(folder.get(), &found) != 0)
        throw Failure(shown + " cannot be opened: " + error_text(errno));
    if (found.st_uid != geteuid() || (found.st_mode & 0077) != 0)
        throw Failure(shown + " must belong to this user alone (mode 0700)");
    return folder;
}

pid_t process_of(const std::string& name)
{
    if (!name.ends_with(socket_ending))
        return 0;
    const auto number =
        parse_number(name.substr(0, name.size() - std::string(socket_ending).size()));
    return number && *number <= INT32_MAX ? static_cast<pid_t>(*number) : 0;
}

bool is_alive(pid_t process)
{
    return kill(process, 0) == 0 || errno == EPERM;
}

} // namespace

ControlFolder::ControlFolder()
{
    const char* const parent = secure_getenv("XDG_RUNTIME_DIR");
    if (!parent || !*parent)
        throw Failure("XDG_RUNTIME_DIR is not set");
    const common::Descriptor runtime = open_private(AT_FDCWD, parent, parent);
    if (mkdirat(runtime.get(), folder_name, 0700) != 0 && errno != EEXIST)
        throw Failure(std::string("cannot create a folder in ") + parent + ": " +
                      error_text(errno));
    fd_ = open_private(runtime.get(), folder_name, std::string(parent) + "/" + folder_name);
}

std::string ControlFolder::socket_name(pid_t process)
{
    return std::to_string(process) + socket_ending;
}

std::string ControlFolder::path_of(const std::string& name) const
{
    return format_text("/proc/self/fd/%d/%s", fd(), name.c_str());
}

std::vector<pid_t> ControlFolder::processes() const
{
    std::vector<pid_t> found;
    const int reading = openat(fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(reading < 0 ? nullptr : fdopendir(reading),
                                                     closedir);
    while (const dirent* const entry = folder ? readdir(folder.get()) : nullptr) {
        const pid_t process = process_of(entry->d_name);
        if (process > 0 && is_alive(process))
            found.push_back(process);
        else if (process > 0)
            unlinkat(fd(), entry->d_name, 0);
    }
    std::sort(found.begin(), found.end());
    return found;
}

bool peer_is_own_user(int socket)
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == geteuid();
}

} // namespace client
