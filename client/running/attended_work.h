#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "machine/display.h"
#include "process/messages.h"
#include "process/signals.h"

namespace client {

/**
 * Runs work that may block without limit (on a pipe or a disk) on a separate thread, while the
 * caller still reacts to signals. The work must own everything that it uses: it can outlive the
 * caller.
 */
class AttendedWork {
public:
    /**
     * Starts the work; finish() rethrows its exception. Throws Failure if the system has no thread.
     */
    explicit AttendedWork(std::function<void()> work);

    /** Readable once the work is done. */
    int fd() const;
    bool through() const;
    /** Call it once the work is done: rethrows its exception, if any. */
    void finish();
    /**
     * Waits until the work is done, but after a stop request only for `patience`. Returns
     * through().
     */
    bool wait(StopSignals& signals, Clock::duration patience) const;

private:
    struct Shared {
        common::Descriptor event;
        std::exception_ptr thrown;
        /** set after `thrown` and before the event */
        std::atomic<bool> through{false};
    };
    std::shared_ptr<Shared> shared_;
};

/**
 * The answer to a question that may block, asked on a separate thread; after a stop request a
 * Failure with `stopped`. The question must own everything that it uses: it can outlive the caller.
 * If the system lacks a descriptor or a thread, the question is asked on this one.
 */
template <typename Question>
auto attended(StopSignals& signals, const char* stopped, Question question)
{
    const auto answer = std::make_shared<std::optional<decltype(question())>>();
    std::optional<AttendedWork> asking;
    try {
        asking.emplace([answer, question] { answer->emplace(question()); });
    } catch (const Failure&) {
        return question();
    }
    if (!asking->wait(signals, Clock::duration::zero()))
        throw Failure(stopped);
    asking->finish();
    return std::move(**answer);
}

inline constexpr const char* stopped_before_the_screen =
    "cannot capture the screen: stopped while waiting for it";

/**
 * Calls display_to_capture(), which may wait minutes for the user to answer the desktop's dialog.
 * Prints a message meanwhile; a stop request ends the wait with a Failure.
 */
DisplayInfo attended_display_to_capture(StopSignals& signals);

} // namespace client
