#include "running/attended_display.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <poll.h>

#include "process/messages.h"
#include "running/attended_work.h"

namespace client {
namespace {

constexpr auto worth_a_word = std::chrono::seconds(1);

void wait(const AttendedWork& opening, StopSignals& signals)
{
    TimePoint word = Clock::now() + worth_a_word;
    while (!opening.through()) {
        if (signals.raised())
            throw Failure("cannot capture the screen: stopped while waiting for it");
        if (Clock::now() >= word) {
            print_message(
                "waiting for the screen; if the desktop asks which one to share, answer its dialog");
            word = TimePoint::max();
        }
        pollfd waited[] = {{opening.fd(), POLLIN, 0}, {signals.fd(), POLLIN, 0}};
        poll(waited, std::size(waited),
             poll_timeout(std::min(word, Clock::now() + std::chrono::hours(1))));
    }
}

} // namespace

DisplayInfo attended_display_to_capture(StopSignals& signals)
{
    const auto display = std::make_shared<DisplayInfo>();
    AttendedWork opening([display] { *display = display_to_capture(); });
    wait(opening, signals);
    opening.finish();
    return *display;
}

} // namespace client
