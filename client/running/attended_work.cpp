#include "running/attended_work.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <memory>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <utility>

#include "process/messages.h"

namespace client {
namespace {

constexpr auto worth_a_word = std::chrono::seconds(1);

void wait(const AttendedWork& opening, StopSignals& signals)
{
    TimePoint word = Clock::now() + worth_a_word;
    while (!opening.through()) {
        if (signals.raised())
            throw Failure(stopped_before_the_screen);
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

AttendedWork::AttendedWork(std::function<void()> work) : shared_(std::make_shared<Shared>())
{
    shared_->event = common::Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!shared_->event)
        throw Failure("cannot continue: " + error_text(errno));
    try {
        std::thread([shared = shared_, work = std::move(work)] {
            try {
                work();
            } catch (...) {
                shared->thrown = std::current_exception();
            }
            shared->through = true;
            eventfd_write(shared->event.get(), 1);
        }).detach();
    } catch (const std::system_error& refusal) {
        throw Failure("cannot continue: " + error_text(refusal.code().value()));
    }
}

int AttendedWork::fd() const
{
    return shared_->event.get();
}

bool AttendedWork::through() const
{
    return shared_->through;
}

void AttendedWork::finish()
{
    // Moved out of the shared state, so that the end of the thread does not free an exception that
    // the caller still reads.
    if (auto thrown = std::exchange(shared_->thrown, nullptr))
        std::rethrow_exception(std::move(thrown));
}

bool AttendedWork::wait(StopSignals& signals, Clock::duration patience) const
{
    TimePoint limit = TimePoint::max();
    while (!through() && Clock::now() < limit) {
        const bool stopped = signals.raised();
        if (stopped && limit == TimePoint::max())
            limit = Clock::now() + patience;
        pollfd waited[] = {{fd(), POLLIN, 0}, {stopped ? -1 : signals.fd(), POLLIN, 0}};
        poll(waited, 2, poll_timeout(std::min(limit, Clock::now() + std::chrono::hours(1))));
    }
    return through();
}

DisplayInfo attended_display_to_capture(StopSignals& signals)
{
    const auto display = std::make_shared<DisplayInfo>();
    AttendedWork opening([display] { *display = display_to_capture(); });
    wait(opening, signals);
    opening.finish();
    return *display;
}

} // namespace client
