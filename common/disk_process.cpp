#include "common/disk_process.h"

#include "common/never_destroyed.h"
#include "common/signals.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

// The process is a copy of one thread of many: a lock that another thread had locked stays locked.
// So it makes system calls only, and none of a sanitizer's.
#if defined(__clang__)
#define NOTHING_BUT_ITSELF __attribute__((disable_sanitizer_instrumentation))
#else
#define NOTHING_BUT_ITSELF __attribute__((no_sanitize("address", "undefined", "thread")))
#endif

namespace common {

namespace {

/**
 * Processes that may still have to exit. Their exit sends no signal, which could disturb a program
 * that waits for its children, so they are polled.
 */
class Ending {
public:
    void add(pid_t process)
    {
        const std::lock_guard lock(mutex_);
        for (pid_t& each : processes_)
            if (each != 0 && has_ended(each))
                each = 0;
        // With so many that do not end, another one is seen to by the end of this process.
        const auto free = std::find(processes_.begin(), processes_.end(), 0);
        if (!has_ended(process) && free != processes_.end())
            *free = process;
    }

private:
    static bool has_ended(pid_t process)
    {
        return waitpid(process, nullptr, WNOHANG | static_cast<int>(__WCLONE)) != 0;
    }

    std::mutex mutex_;
    std::array<pid_t, 64> processes_{};
};

Ending& ending()
{
    static NeverDestroyed<Ending> all;
    return *all;
}

NOTHING_BUT_ITSELF void keep_only(int one, int other)
{
    const unsigned low = static_cast<unsigned>(one < other ? one : other);
    const unsigned high = static_cast<unsigned>(one < other ? other : one);
    if (low > 0)
        syscall(SYS_close_range, 0u, low - 1, 0u);
    if (high > low + 1)
        syscall(SYS_close_range, low + 1, high - 1, 0u);
    syscall(SYS_close_range, high + 1, ~0u, 0u);
}

} // namespace

NOTHING_BUT_ITSELF DiskProcess::Answer DiskProcess::carry_out(const Order& order,
                                                              const uint8_t* shared, int file)
{
    rlimit64 limit;
    if (syscall(SYS_prlimit64, 0, RLIMIT_FSIZE, nullptr, &limit) == 0 &&
        limit.rlim_cur != order.greatest_file) {
        limit.rlim_cur =
            order.greatest_file < limit.rlim_max ? order.greatest_file : limit.rlim_max;
        syscall(SYS_prlimit64, 0, RLIMIT_FSIZE, &limit, nullptr);
    }
    Answer answer{0, 0, 0};
    struct statx status;
    if (syscall(SYS_statx, file, "", AT_EMPTY_PATH, STATX_SIZE, &status) == 0)
        answer.size_before = status.stx_size;
    while (answer.error == 0 && answer.written < order.size) {
        const long written =
            syscall(SYS_write, file, shared + answer.written, order.size - answer.written);
        if (written < 0)
            answer.error = errno;
        else
            answer.written += static_cast<size_t>(written);
        if (written == 0)
            break;
    }
    return answer;
}

NOTHING_BUT_ITSELF void DiskProcess::run(const uint8_t* shared, int file, int socket)
{
    syscall(SYS_prctl, PR_SET_NAME, "disk writer", 0, 0, 0);
    keep_only(file, socket);
    Order order;
    while (syscall(SYS_read, socket, &order, sizeof order) == static_cast<long>(sizeof order)) {
        const Answer answer = carry_out(order, shared, file);
        syscall(SYS_write, socket, &answer, sizeof answer);
    }
    // Starts writeback. A busy disk may block the call, and then only this process.
    syscall(SYS_sync_file_range, file, 0L, 0L, static_cast<long>(SYNC_FILE_RANGE_WRITE));
    syscall(SYS_exit_group, 0);
    __builtin_unreachable();
}

std::unique_ptr<DiskProcess> DiskProcess::start(int fd)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        return nullptr;
    Descriptor ours(ends[0]), theirs(ends[1]);
    void* const memory =
        mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return nullptr;
    auto* const shared = static_cast<uint8_t*>(memory);
    long process = -1;
    {
        // Not fork(): the program's fork handlers must not run here, and no signal must report
        // the end of this process.
        const SignalsBlocked guard;
        process = syscall(SYS_clone, 0L, 0L, 0L, 0L, 0L);
        if (process == 0)
            run(shared, fd, theirs.get());
    }
    std::unique_ptr<DiskProcess> started(
        process < 0 ? nullptr
                    : new (std::nothrow)
                          DiskProcess(shared, std::move(ours), static_cast<pid_t>(process)));
    if (!started)
        munmap(shared, capacity);
    return started;
}

DiskProcess::~DiskProcess()
{
    socket_ = {};
    munmap(shared_, capacity);
    ending().add(process_);
}

void DiskProcess::write(const uint8_t* data, size_t size)
{
    size = std::min(size, capacity);
    std::memcpy(shared_, data, size);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const Order order{size,
                      limit.rlim_cur == RLIM_INFINITY ? ~uint64_t{0} : uint64_t{limit.rlim_cur}};
    busy_ = true;
    ::send(socket_.get(), &order, sizeof order, MSG_NOSIGNAL);
}

DiskProcess::Answer DiskProcess::answer()
{
    Answer answer{0, EIO, 0};
    ssize_t got = -1;
    do
        got = recv(socket_.get(), &answer, sizeof answer, 0);
    while (got < 0 && errno == EINTR);
    busy_ = false;
    // The process was killed: how much of this it had written is not known and counts as nothing.
    return got == static_cast<ssize_t>(sizeof answer) ? answer : Answer{0, EIO, 0};
}

} // namespace common
