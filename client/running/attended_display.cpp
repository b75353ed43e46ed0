#include "running/attended_display.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

#include "machine/host.h"
#include "process/messages.h"
#include "running/attended_work.h"

namespace client {
namespace {

using namespace std::chrono_literals;

/** While it exists, it gives up the display for a stop request. */
class StopWatch {
public:
    explicit StopWatch(StopSignals& signals) : signals_(signals)
    {
        try {
            watch_ = std::jthread([this](const std::stop_token& ended) { watch(ended); });
        } catch (const std::system_error&) {
            // The system has no thread left, so a stop waits for the display.
        }
    }

    bool given_up() const { return given_up_; }

private:
    void watch(const std::stop_token& ended)
    {
        std::unique_lock lock(mutex_);
        // Counts looks instead of time: after SIGSTOP and SIGCONT the display still has all of it.
        for (int looks = 0;
             !wake_.wait_for(lock, ended, 50ms, [] { return false; }) && !ended.stop_requested();) {
            if (!signals_.raised() || ++looks < 10)
                continue;
            given_up_ = true;
            // repeatedly, since the calls may begin another wait
            give_up_display();
        }
    }

    StopSignals& signals_;
    std::atomic<bool> given_up_{false};
    std::mutex mutex_;
    std::condition_variable_any wake_;
    // last member: it uses the others
    std::jthread watch_;
};

} // namespace

void attend_display(StopSignals& signals, const std::function<void()>& calls)
{
    const StopWatch watch(signals);
    try {
        calls();
    } catch (const Failure&) {
        if (watch.given_up())
            throw Failure(stopped_before_the_screen);
        throw;
    }
}

} // namespace client
