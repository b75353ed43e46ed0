#pragma once

#include "base/border.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <pthread.h>
#include <sys/resource.h>
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
 * Raises the stack size that threads get by default, x264's own included, to what they need. It is
 * that of RLIMIT_STACK, which may be set to less than x264 lays on a stack.
 */
inline void give_threads_enough_stack()
{
    constexpr size_t enough = size_t{512} * 1024;
    static const int done = [] {
        pthread_attr_t defaults;
        size_t bytes = 0;
        if (pthread_getattr_default_np(&defaults) != 0)
            return -1;
        if (pthread_attr_getstacksize(&defaults, &bytes) == 0 && bytes < enough) {
            pthread_attr_setstacksize(&defaults, enough);
            pthread_setattr_default_np(&defaults);
        }
        return pthread_attr_destroy(&defaults);
    }();
    static_cast<void>(done);
}

/**
 * For a scope, gives the calling thread the signal mask and priority of host-layer threads, which
 * those that it starts inherit.
 *
 * It blocks all signals but the synchronous faults, so the client's threads get SIGINT and others.
 * It raises the priority if the system allows that (root, CAP_SYS_NICE, RLIMIT_NICE), because a
 * late thread loses pictures or sound; a process that has a nice value already keeps it.
 */
class ThreadInheritance {
public:
    ThreadInheritance()
    {
        give_threads_enough_stack();
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
            sigdelset(&blocked, fault);
        pthread_sigmask(SIG_SETMASK, &blocked, &signals_before_);
        preferred_ = getpriority(PRIO_PROCESS, this_thread) == 0 &&
                     setpriority(PRIO_PROCESS, this_thread, nice_of_media) == 0;
    }
    ~ThreadInheritance()
    {
        if (preferred_)
            setpriority(PRIO_PROCESS, this_thread, 0);
        pthread_sigmask(SIG_SETMASK, &signals_before_, nullptr);
    }
    ThreadInheritance(const ThreadInheritance&) = delete;
    ThreadInheritance& operator=(const ThreadInheritance&) = delete;

private:
    // on Linux, nice values are per thread
    static constexpr id_t this_thread = 0;
    // the value that sound servers use
    static constexpr int nice_of_media = -10;
    sigset_t signals_before_;
    bool preferred_;
};

/**
 * Starts a thread of the host layer: named (cut at 15 characters), without signals, preferred.
 * `entry` takes no argument; an exception ends the thread, not the process. Throws
 * std::system_error when the system gives no thread.
 */
template <typename F> std::thread start_thread(const char* name, F entry)
{
    const ThreadInheritance guard;
    return std::thread([kept = thread_name(name), run = std::move(entry)]() mutable {
        name_this_thread(kept);
        at_border(kept.data(), false, [&] { return run(), true; });
    });
}

/**
 * Waits on a std::condition_variable until `condition` is true, at most for `limit` of the time in
 * which this process runs. Returns the condition. A limit by the clock would expire while the
 * process is stopped, although the thread that makes the condition true cannot run either; here a
 * stop counts as one slice.
 */
template <typename Variable, typename Duration, typename Condition>
bool wait_patiently(Variable& changed, std::unique_lock<std::mutex>& lock, Duration limit,
                    Condition condition)
{
    constexpr std::chrono::nanoseconds slice = std::chrono::milliseconds(20);
    for (std::chrono::nanoseconds left = limit; left.count() > 0; left -= slice)
        if (changed.wait_for(lock, std::min(left, slice), condition))
            return true;
    return condition();
}

} // namespace zu3host
