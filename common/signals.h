#pragma once

#include <csignal>
#include <ctime>
#include <pthread.h>

namespace common {

/** Blocks every signal of this thread, and of those that it starts, while it lives. */
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_;
};

/**
 * While it lives, a write of this thread to what the other end has closed raises no SIGPIPE. For
 * the client's threads: those of the host layer block the signal anyway.
 */
class BrokenPipeGuard {
public:
    BrokenPipeGuard()
    {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        was_pending_ = pending();
        pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
    }
    ~BrokenPipeGuard()
    {
        constexpr timespec at_once{};
        if (!was_pending_ && pending())
            sigtimedwait(&pipe_, nullptr, &at_once);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    BrokenPipeGuard(const BrokenPipeGuard&) = delete;
    BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

private:
    static bool pending()
    {
        sigset_t set;
        sigpending(&set);
        return sigismember(&set, SIGPIPE);
    }

    sigset_t pipe_;
    sigset_t before_;
    bool was_pending_;
};

} // namespace common
