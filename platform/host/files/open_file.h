#pragma once

#include "files/unfinished_picture.h"

#include <common/descriptor.h>
#include <common/disk_process.h>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace zu3host {

/**
 * Ends the current writes at once, and from now on no write waits for a stalled disk.
 */
void give_up_writes();

/**
 * An unbuffered file: the kernel has the data of each write. Exception: an ordinary file of a
 * transport stream ends with a whole picture at any time. A picture that may be incomplete waits;
 * an incomplete one is left out at the close. One thread at a time reads, writes or seeks; others
 * wait. Deleting the task ends a transfer that waits for the other end of a pipe, and a write that
 * waits for its disk; they return the bytes transferred so far.
 */
class OpenFile {
public:
    /**
     * Null, with a log line, if it cannot be opened. Does not wait for the other end of a pipe.
     */
    static std::shared_ptr<OpenFile> open(const char* name, int flags);
    OpenFile(std::string name, common::Descriptor fd, std::unique_ptr<common::DiskProcess> disk,
             bool written_in_order)
        : name_(std::move(name)), fd_(std::move(fd)), disk_(std::move(disk)),
          written_in_order_(written_in_order)
    {
    }
    ~OpenFile();
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    /**
     * Reads up to `size` bytes, fewer at the end of the file.
     * @return bytes read, -1 on an error before the first
     */
    int64_t read(void* dst, size_t size);
    /**
     * Writes `count` items of `item_bytes`. A failure leaves no partial item at the end of an
     * ordinary file, and in a transport stream nothing of the whole call. Logs the first failure of
     * a file, counts every one.
     * @return items written whole
     */
    uint64_t write_items(const void* src, uint64_t item_bytes, uint64_t count);
    bool seek(int64_t offset, int whence);
    /**
     * Starts writeback without waiting for it, and closes the file. While another thread is inside
     * a call, the descriptor stays open until the last owner is gone.
     * @return false if data was lost or the file stays open
     */
    bool close();

private:
    uint64_t write_now(const void* src, uint64_t item_bytes, uint64_t count);
    bool write_unfinished(size_t bytes);
    size_t write_here(const uint8_t* src, size_t size, int& error);
    size_t write_by_process(const uint8_t* src, size_t size, int& error);
    int wait_for_earlier_write();
    int wait_for_disk();
    void count_failure(int error);
    void cut_partial_item(uint64_t partial_bytes);

    std::string name_;
    // locked within each call; guards the members below
    std::mutex in_use_;
    common::Descriptor fd_;
    // of an ordinary file that is written, if the system gives one
    std::unique_ptr<common::DiskProcess> disk_;
    /** an ordinary file, from one end to the other */
    bool written_in_order_;
    UnfinishedPicture unfinished_;
    bool written_ = false;
    bool failure_logged_ = false;
};

} // namespace zu3host
