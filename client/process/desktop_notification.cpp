#include "process/desktop_notification.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "process/messages.h"
#include <common/descriptor.h>

namespace client {
namespace {

constexpr int patience_ms = 1000;

/** As a string in the text form of D-Bus values. */
std::string quoted(const std::string& text)
{
    std::string made = "'";
    for (const char c : printable(text))
        made += c == '\'' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    return made + "'";
}

/** Starts a program without our signal mask and streams; -1 if it cannot be started. */
pid_t start(std::vector<std::string> words)
{
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_t files;
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_init(&files);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        posix_spawn_file_actions_addopen(&files, fd, "/dev/null", O_RDWR, 0);
    pid_t process = -1;
    if (posix_spawnp(&process, arguments[0], &files, &attributes, arguments.data(), environ) != 0)
        process = -1;
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
    return process;
}

} // namespace

void notify_desktop(const std::string& title, const std::string& text)
{
    const pid_t process =
        start({"gdbus", "call", "--session", "--timeout", "1", "--dest",
               "org.freedesktop.Notifications", "--object-path", "/org/freedesktop/Notifications",
               "--method", "org.freedesktop.Notifications.Notify", "screenrecord", "uint32 0",
               "'camera-video'", quoted(title), quoted(text), "@as []", "@a{sv} {}", "int32 -1"});
    if (process < 0)
        return;
    const common::Descriptor ended(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    pollfd waited{ended.get(), POLLIN, 0};
    if (!ended || poll(&waited, 1, patience_ms) != 1)
        kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
}

} // namespace client
