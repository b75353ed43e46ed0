#pragma once

#include <array>
#include <csignal>
#include <cstdio>
#include <pthread.h>
#include <thread>
#include <utility>

namespace zu3host {

/** Linux keeps 15 characters of a thread's name and a terminating NUL. */
using ThreadName = std::array<char, 16>;

inline ThreadName thread_name(const char* name)
{
    ThreadName shortened{};
    if (name)
        std::snprintf(shortened.data(), shortened.size(), "%.15s", name);
    return shortened;
}

inline void name_this_thread(const ThreadName& name)
{
    pthread_setname_np(pthread_self(), name.data());
}

/**
 * While it lives, the calling thread takes no signal but the synchronous faults. A thread inherits the mask
 * of its creator, so that a thread started under it leaves SIGINT and the like to the client's own threads.
 */
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
            sigdelset(&blocked, fault);
        pthread_sigmask(SIG_SETMASK, &blocked, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_;
};

/**
 * Starts a thread of the host layer: named (cut at 15 characters), every signal but the synchronous faults
 * blocked. `entry` takes no argument. Throws std::system_error when the system gives no thread.
 */
template <typename F> std::thread start_thread(const char* name, F entry)
{
    const SignalsBlocked guard;
    return std::thread([kept = thread_name(name), run = std::move(entry)]() mutable {
        name_this_thread(kept);
        run();
    });
}

} // namespace zu3host
