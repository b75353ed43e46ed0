#pragma once

#include "base/threads.h"
#include <common/descriptor.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace zu3host {

/** A task as a thread. Made through start(); ended by exactly one call of stop(). */
class Task : public std::enable_shared_from_this<Task> {
public:
    using Entry = void (*)(void*);
    enum class End {
        /** nothing of the task runs any more */
        finished,
        /** the entry did not return within the limit; the thread is left to itself */
        still_running,
    };

    Task(const char* name, Entry entry, void* argument)
        : name_(thread_name(name)), entry_(entry), argument_(argument)
    {
    }

    /** Starts the thread with a stack of at least `stack_bytes`; an errno, 0 = started. */
    int start(size_t stack_bytes);
    /**
     * Keeps an entry that has not begun from ever running, and waits up to `limit` for one that
     * runs. Waits of its thread for deletion_on_this_thread() are over.
     */
    End stop(std::chrono::milliseconds limit);

    bool runs_on_this_thread() const;
    /**
     * For whoever polls on a task's thread: a descriptor that is readable from the task's deletion
     * on; -1 on a thread that is no task's.
     */
    static int deletion_on_this_thread();
    const char* name() const { return name_.data(); }

private:
    enum class State { created, running, returned, cancelled };

    static void* run_thread(void* kept_task);
    void run();
    bool may_begin();

    const ThreadName name_;
    const Entry entry_;
    void* const argument_;
    mutable std::mutex mutex_;
    std::condition_variable returned_;
    State state_ = State::created;
    pthread_t thread_{};
    // an event
    common::Descriptor deletion_;
};

} // namespace zu3host
