#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <memory>

#include "process/signals.h"

namespace client {

/**
 * Runs work that can block without a limit (the far end of a pipe, a disk) on a thread of its own
 * while the caller keeps listening. The work owns everything it uses, since it can outlive the
 * caller.
 */
class AttendedWork {
public:
    /**
     * Starts it; what it throws is thrown by finish(). Throws Failure when the system gives no
     * thread.
     */
    explicit AttendedWork(std::function<void()> work);

    /** Readable once it is through. */
    int fd() const;
    bool through() const;
    /** Throws what the through work has thrown. */
    void finish();
    /**
     * Waits until it is through, or for `patience` once a stop is asked for; whether it is through.
     */
    bool wait(StopSignals& signals, Clock::duration patience) const;

private:
    struct Shared {
        common::Descriptor event;
        std::exception_ptr thrown;
        /** set behind `thrown`, ahead of the event */
        std::atomic<bool> through{false};
    };
    std::shared_ptr<Shared> shared_;
};

} // namespace client
