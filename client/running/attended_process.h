#pragma once

#include <atomic>
#include <functional>
#include <span>
#include <string>
#include <sys/types.h>

#include <common/descriptor.h>

namespace client {

/**
 * Runs work on files in a separate process. While a disk is stalled, the kernel blocks the thread
 * that uses it, and no signal ends that: a process with such a thread cannot exit. So the work runs
 * in a process that the caller can leave behind.
 *
 * The process is a copy of this one with only the calling thread. The work may allocate memory, but
 * must not use a lock that another thread may have locked, so start the process while the library
 * is closed: after a recording, or before it. It waits for begin(), and can do the work several
 * times. It blocks every signal, and ends soon after its parent.
 */
class AttendedProcess {
public:
    /** Called with the finished part, 0 to 1; returns whether to continue. */
    using GoOn = std::function<bool(double part)>;
    /** Its result, at most 8000 bytes, or its exception's message is that of finish(). */
    using Work = std::function<std::string(const GoOn&)>;

    /**
     * Starts the process. Throws Failure if the system has no process or memory.
     * @param name of the process, at most 15 bytes
     * @param files descriptors that the work uses; the process closes all others
     */
    AttendedProcess(const char* name, std::span<const int> files, const Work& work);
    AttendedProcess(const AttendedProcess&) = delete;
    AttendedProcess& operator=(const AttendedProcess&) = delete;
    /** Cancels unfinished work. */
    ~AttendedProcess();

    /**
     * Starts the work, which sees this process's memory as it was at the construction, and shared
     * memory as it is now. Not while it runs. Throws Failure if the process was killed.
     */
    void begin();
    /** Readable once the work is done. */
    int fd() const { return socket_.get(); }
    bool through() const;
    /**
     * Call it once the work is done: returns its result, or throws Failure with the message of its
     * exception.
     */
    std::string finish();
    /** The finished part, 0 to 1. */
    double part() const { return shared_->part; }
    /** Makes GoOn return false. */
    void cancel() { shared_->cancelled = true; }

private:
    /** in memory shared by both processes */
    struct Shared {
        std::atomic<double> part{0};
        std::atomic<bool> cancelled{false};
    };

    [[noreturn]] void run(const Work& work, int socket, pid_t parent);

    Shared* shared_ = nullptr;
    common::Descriptor socket_;
    pid_t process_ = -1;
};

} // namespace client
