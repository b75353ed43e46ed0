#include "running/attended_display.h"

#include <atomic>

#include "machine/host.h"
#include "process/messages.h"
#include "running/attended_work.h"
#include "running/repeated_look.h"

namespace client {
namespace {

/** While it exists, it gives up the display for a stop request. */
class StopWatch {
public:
    explicit StopWatch(StopSignals& signals) : signals_(signals) {}

    bool given_up() const { return given_up_; }

private:
    bool look()
    {
        if (signals_.raised() && ++looks_ >= 10) {
            given_up_ = true;
            // repeatedly, since the calls may begin another wait
            give_up_display();
        }
        return true;
    }

    StopSignals& signals_;
    std::atomic<bool> given_up_{false};
    int looks_ = 0;
    // last member: it uses the others
    RepeatedLook watch_{[this] { return look(); }};
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
