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
 * must not use a lock that another thread may have locked, so close the library first. The process
 * blocks every signal, and ends soon after its parent.
 */
class AttendedProcess {
public:
    /** Called with the finished part, 0 to 1; returns whether to continue. */
    using GoOn = std::function<bool(double part)>;

    /**
     * Starts the work; finish() throws the message of its exception. Throws Failure if the system
     * has no process or memory.
     * @param name of the process, at most 15 bytes
     * @param files descriptors that the work uses; the process closes all others
     */
    AttendedProcess(const char* name, std::span<const int> files,
                    const std::function<void(const GoOn&)>& work);
    AttendedProcess(const AttendedProcess&) = delete;
    AttendedProcess& operator=(const AttendedProcess&) = delete;
    /** Cancels unfinished work. */
    ~AttendedProcess();

    /** Readable once the work is done. */
    int fd() const { return result_.get(); }
    bool through() const;
    /** Call it once the work is done: throws Failure with the message of its exception, if any. */
    void finish();
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

    Shared* shared_ = nullptr;
    common::Descriptor result_;
    pid_t process_ = -1;
};

} // namespace client
