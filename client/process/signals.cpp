#include "process/signals.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <vector>

#include "process/messages.h"

namespace client {
namespace {

bool is_ignored(int signal_number)
{
    struct sigaction action = {};
    return sigaction(signal_number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

sigset_t waited_set()
{
    sigset_t set;
    sigemptyset(&set);
    // Also if it is ignored: a shell script ignores SIGINT for programs in the background.
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    if (!is_ignored(SIGHUP)) // nohup asks to outlive the terminal
        sigaddset(&set, SIGHUP);
    sigaddset(&set, SIGUSR1);
    sigaddset(&set, SIGUSR2);
    return set;
}

} // namespace

uint64_t now_us()
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
            .count());
}

int poll_timeout(TimePoint until)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, 3'600'000));
}

void wait_for(std::span<const Awaited> all, TimePoint until)
{
    using namespace std::chrono;
    std::vector<pollfd> polled;
    for (const Awaited& each : all)
        polled.push_back({each.fd, POLLIN, 0});
    // ppoll() can wait for less than a millisecond
    const auto left = std::clamp<nanoseconds>(until - Clock::now(), 0ns, 3600s);
    const timespec timeout{duration_cast<seconds>(left).count(), (left % 1s).count()};
    if (ppoll(polled.data(), polled.size(), &timeout, nullptr) <= 0)
        return;
    for (size_t i = 0; i < all.size(); ++i)
        if (polled[i].revents && all[i].react)
            all[i].react();
}

std::function<void()> reset(int event)
{
    return [event] {
        eventfd_t count = 0;
        eventfd_read(event, &count);
    };
}

StopSignals::StopSignals()
{
    const sigset_t set = waited_set();
    if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0)
        throw Failure("cannot block signals");
    fd_ = common::Descriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd_)
        throw Failure("cannot wait for signals: " + error_text(errno));
    // A lost reader, a file size limit and a terminal of another job show as errors.
    for (const int number : {SIGPIPE, SIGXFSZ, SIGTTIN})
        signal(number, SIG_IGN);
}

bool StopSignals::raised()
{
    return stops() > 0;
}

unsigned StopSignals::stops()
{
    signalfd_siginfo info;
    while (read(fd_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo == SIGUSR1)
            pause_request_ = PauseRequest::pause;
        else if (info.ssi_signo == SIGUSR2)
            pause_request_ = PauseRequest::resume;
        else
            ++stops_;
    }
    return stops_;
}

bool StopSignals::wait_until(TimePoint until)
{
    pollfd waited{fd_.get(), POLLIN, 0};
    while (!raised() && Clock::now() < until)
        poll(&waited, 1, poll_timeout(until));
    return raised();
}

} // namespace client
