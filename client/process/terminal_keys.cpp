#include "process/terminal_keys.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <iterator>
#include <termios.h>
#include <unistd.h>

namespace client {
namespace {

// The signals that end or stop the program and that StopSignals does not wait for.
constexpr int handled[] = {SIGTSTP, SIGQUIT, SIGABRT, SIGSEGV,   SIGBUS,  SIGILL, SIGFPE,
                           SIGSYS,  SIGTRAP, SIGALRM, SIGVTALRM, SIGPROF, SIGXCPU};

// Shared with the signal handler. The modes and actions are written only while `changed` is false.
termios modes_before;
struct sigaction actions_before[std::size(handled)];
std::atomic<bool> changed{false};

bool in_foreground()
{
    return tcgetpgrp(STDIN_FILENO) == getpgrp();
}

// Async-signal-safe.
void restore_modes()
{
    if (changed.exchange(false) && in_foreground())
        tcsetattr(STDIN_FILENO, TCSANOW, &modes_before);
}

// Async-signal-safe.
void restore_actions()
{
    for (size_t i = 0; i < std::size(handled); ++i)
        sigaction(handled[i], &actions_before[i], nullptr);
}

// The signal is raised again, and gets its earlier action when this handler returns.
void restore_and_raise(int number)
{
    const int error = errno;
    restore_modes();
    restore_actions();
    raise(number);
    errno = error;
}

void handle_signals()
{
    struct sigaction action = {};
    action.sa_handler = restore_and_raise;
    action.sa_flags = SA_RESTART;
    for (size_t i = 0; i < std::size(handled); ++i) {
        sigaction(handled[i], nullptr, &actions_before[i]);
        if (actions_before[i].sa_handler != SIG_IGN)
            sigaction(handled[i], &action, nullptr);
    }
}

} // namespace

TerminalKeys::TerminalKeys(bool wanted) : wanted_(wanted && isatty(STDIN_FILENO) == 1)
{
    look();
}

TerminalKeys::~TerminalKeys()
{
    const bool was_changed = changed;
    restore_modes();
    if (was_changed)
        restore_actions();
}

// Also after a stop by SIGTSTP, whose handler restored modes and actions.
void TerminalKeys::look()
{
    if (!wanted_ || changed || !in_foreground() || tcgetattr(STDIN_FILENO, &modes_before) != 0)
        return;
    handle_signals();
    termios modes = modes_before;
    modes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    modes.c_cc[VMIN] = 1;
    modes.c_cc[VTIME] = 0;
    changed = true;
    if (tcsetattr(STDIN_FILENO, TCSANOW, &modes) != 0)
        wanted_ = false;
}

int TerminalKeys::fd() const
{
    return wanted_ && changed && in_foreground() ? STDIN_FILENO : -1;
}

void TerminalKeys::read_keys(const std::function<void(char)>& handle)
{
    char keys[64];
    const ssize_t count = read(STDIN_FILENO, keys, sizeof keys);
    if (count < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (count <= 0) // the terminal is gone
        wanted_ = false;
    for (ssize_t i = 0; i < count; ++i)
        handle(keys[i]);
}

} // namespace client
