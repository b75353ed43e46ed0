#pragma once

#include <common/descriptor.h>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/types.h>
#include <utility>

namespace common {

/**
 * Writes to an ordinary file from a process of its own.
 *
 * The kernel holds a thread whose disk stands still (a frozen file system, a dead server) in its
 * write until the disk moves again, and no signal ends that: neither the thread nor its process can
 * exit. So the thread that may be held is the only one of a process that is never waited for. It
 * has the file and nothing else of ours, ends once its owner has gone and its last write is
 * through, and receives no signal but SIGKILL.
 *
 * One thread at a time uses an object.
 */
class DiskProcess {
public:
    /**
     * The most bytes of one write(): the greatest picture, since a write is whole even if we
     * are killed.
     */
    static constexpr size_t capacity = 4 << 20;

    /**
     * The result of a write: bytes that the kernel has, and the errno that ended it early, 0 =
     * none.
     */
    struct Answer {
        size_t written;
        int error;
    };

    /** Null, and errno, when the system gives no process or memory. `fd` stays the caller's. */
    static std::unique_ptr<DiskProcess> start(int fd);
    ~DiskProcess();
    DiskProcess(const DiskProcess&) = delete;
    DiskProcess& operator=(const DiskProcess&) = delete;

    /**
     * Starts to write at the file's position what fits of `data`, which is copied; not while
     * busy().
     */
    void write(const uint8_t* data, size_t size);
    /** Whether a write is under way. */
    bool busy() const { return busy_; }
    /** Readable once the write under way is through. */
    int fd() const { return socket_.get(); }
    /** The result of the write; waits for it. */
    Answer answer();

private:
    struct Order {
        /** of the data, which is at the beginning of the shared memory */
        uint64_t size;
        /** RLIMIT_FSIZE of the owner, which may have changed */
        uint64_t greatest_file;
    };

    DiskProcess(uint8_t* shared, Descriptor socket, pid_t process)
        : shared_(shared), socket_(std::move(socket)), process_(process)
    {
    }
    [[noreturn]] static void run(const uint8_t* shared, int file, int socket);
    static Answer carry_out(const Order& order, const uint8_t* shared, int file);

    /** capacity bytes, of which what is never used is never there */
    uint8_t* shared_;
    Descriptor socket_;
    pid_t process_;
    bool busy_ = false;
};

} // namespace common
