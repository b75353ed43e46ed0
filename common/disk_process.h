#pragma once

#include <common/descriptor.h>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/types.h>
#include <utility>

namespace common {

/**
 * Writes to a regular file from a separate process.
 *
 * While a disk is stalled (a frozen file system, a dead server), the kernel blocks a thread in its
 * write, and no signal ends that: neither the thread nor its process can exit. So the write happens
 * in a single-threaded process that nothing waits for. It has no other descriptors of ours, exits
 * after its last write once its owner has gone, and blocks every signal but SIGKILL.
 *
 * One thread at a time.
 */
class DiskProcess {
public:
    /**
     * The most bytes of one write(). The largest picture fits, so a kill never leaves part of one.
     */
    static constexpr size_t capacity = 4 << 20;

    /**
     * The result of a write: bytes that the kernel has, and the errno that ended it early, 0 =
     * none.
     */
    struct Answer {
        size_t written;
        int error;
        /** The file's size just before: less than its writers know if others have cut it. */
        uint64_t size_before = 0;
    };

    /** Null, and errno, without a process or memory. The caller keeps `fd`. */
    static std::unique_ptr<DiskProcess> start(int fd);
    ~DiskProcess();
    DiskProcess(const DiskProcess&) = delete;
    DiskProcess& operator=(const DiskProcess&) = delete;

    /**
     * Starts to write `data`, cut at `capacity` and copied, at the file's position. Not while
     * busy().
     */
    void write(const uint8_t* data, size_t size);
    /** Whether a write is under way. */
    bool busy() const { return busy_; }
    /** Readable once the write is done. */
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

    /** `capacity` bytes; unused pages cost nothing */
    uint8_t* shared_;
    Descriptor socket_;
    pid_t process_;
    bool busy_ = false;
};

} // namespace common
