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

/** "" after success, otherwise the reason. */
std::string result_of(const std::function<void()>& work)
{
    try {
        work();
        return {};
    } catch (const std::bad_alloc&) {
        return "memory ran out";
    } catch (const std::exception& failure) {
        const std::string reason = failure.what();
        return reason.empty() ? "unknown reason" : reason;
    } catch (...) {
        return "unknown reason";
    }
}

} // namespace

AttendedProcess::AttendedProcess(const char* name, std::span<const int> files,
                                 const std::function<void(const GoOn&)>& work)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw Failure("cannot continue: " + error_text(errno));
    result_ = common::Descriptor(ends[0]);
    const common::Descriptor answer(ends[1]);
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw Failure("cannot continue: " + error_text(errno));
    shared_ = new (memory) Shared;
    std::vector<int> kept(files.begin(), files.end());
    kept.push_back(answer.get());
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
    const std::string result = result_of([&] {
        work([this, parent](double part) {
            shared_->part = part;
            return !shared_->cancelled && getppid() == parent;
        });
    });
    // At most PIPE_BUF, so it arrives as a whole.
    const std::string line = "\n" + result.substr(0, PIPE_BUF - 1);
    [[maybe_unused]] const ssize_t written = write(answer.get(), line.data(), line.size());
    _exit(0);
}

AttendedProcess::~AttendedProcess()
{
    cancel();
    munmap(shared_, sizeof(Shared));
    waitpid(process_, nullptr, WNOHANG);
}

bool AttendedProcess::through() const
{
    pollfd result{fd(), POLLIN, 0};
    return poll(&result, 1, 0) > 0;
}

void AttendedProcess::finish()
{
    std::array<char, PIPE_BUF> line;
    ssize_t got = -1;
    do
        got = read(fd(), line.data(), line.size());
    while (got < 0 && errno == EINTR);
    if (got <= 0)
        throw Failure("its process was killed");
    if (got > 1)
        throw Failure(std::string(line.data() + 1, static_cast<size_t>(got) - 1));
}

} // namespace client
