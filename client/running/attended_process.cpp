#include "running/attended_process.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "process/messages.h"
#include <common/signals.h>

namespace client {
namespace {

static_assert(std::atomic<double>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

/**
 * Closes all other descriptors, so that readers of our outputs see their end at the program's exit.
 */
void keep_only(std::vector<int> files)
{
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO && null >= 0; ++fd)
        dup2(null, fd);
    std::sort(files.begin(), files.end());
    unsigned from = STDERR_FILENO + 1;
    for (const int file : files) {
        const auto number = static_cast<unsigned>(file);
        if (number > from)
            close_range(from, number - 1, 0);
        from = std::max(from, number + 1);
    }
    close_range(from, UINT_MAX, 0);
}

constexpr char success = '+', failure = '-';
constexpr size_t longest_answer = 8192;

/** What the process sends: `success` and the result, or `failure` and the reason. */
std::string answer_of(const AttendedProcess::Work& work, const AttendedProcess::GoOn& go_on)
{
    try {
        return success + work(go_on);
    } catch (const std::bad_alloc&) {
        return failure + std::string("memory ran out");
    } catch (const std::exception& thrown) {
        return failure + std::string(thrown.what());
    } catch (...) {
        return failure + std::string("unknown reason");
    }
}

} // namespace

AttendedProcess::AttendedProcess(const char* name, std::span<const int> files, const Work& work)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw Failure("cannot continue: " + error_text(errno));
    socket_ = common::Descriptor(ends[0]);
    const common::Descriptor theirs(ends[1]);
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw Failure("cannot continue: " + error_text(errno));
    shared_ = new (memory) Shared;
    std::vector<int> kept(files.begin(), files.end());
    kept.push_back(theirs.get());
    const pid_t parent = getpid();
    const common::SignalsBlocked guard;
    process_ = fork();
    if (process_ < 0) {
        const int error = errno;
        munmap(memory, sizeof(Shared));
        throw Failure("cannot continue: " + error_text(error));
    }
    if (process_ > 0)
        return;
    prctl(PR_SET_NAME, name);
    keep_only(std::move(kept));
    run(work, theirs.get(), parent);
}

void AttendedProcess::run(const Work& work, int socket, pid_t parent)
{
    const GoOn go_on = [this, parent](double part) {
        shared_->part = part;
        return !shared_->cancelled && getppid() == parent;
    };
    char order = 0;
    while (read(socket, &order, sizeof order) > 0) {
        const std::string answer = answer_of(work, go_on);
        send(socket, answer.data(), std::min(answer.size(), longest_answer), MSG_NOSIGNAL);
    }
    _exit(0);
}

AttendedProcess::~AttendedProcess()
{
    cancel();
    socket_ = {};
    munmap(shared_, sizeof(Shared));
    waitpid(process_, nullptr, WNOHANG);
}

bool AttendedProcess::through() const
{
    pollfd result{fd(), POLLIN, 0};
    return poll(&result, 1, 0) > 0;
}

void AttendedProcess::begin()
{
    shared_->part = 0;
    constexpr char order = 0;
    if (send(fd(), &order, sizeof order, MSG_NOSIGNAL | MSG_DONTWAIT) < 0)
        throw Failure("its process was killed");
}

std::string AttendedProcess::finish()
{
    std::array<char, longest_answer> answer;
    ssize_t got = -1;
    do
        got = recv(fd(), answer.data(), answer.size(), 0);
    while (got < 0 && errno == EINTR);
    if (got <= 0)
        throw Failure("its process was killed");
    const std::string text(answer.data() + 1, static_cast<size_t>(got) - 1);
    if (answer[0] == failure)
        throw Failure(text);
    return text;
}

} // namespace client
