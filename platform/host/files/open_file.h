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
 * From now on no write waits for a disk that stands still: those under way and later ones end at
 * once.
 */
void give_up_writes();

/**
 * An unbuffered file: data that a write accepted is with the kernel. Exception: an ordinary file of
 * a transport stream ends with a whole picture, also when it is closed. A picture that may be
 * incomplete waits, and one that lacks its end is left out. One thread at a time reads,
 * writes or seeks; others wait. A transfer that waits for the other end of a pipe, and a write that
 * waits for its disk, is over when the task that it is in is deleted: it answers what is through by
 * then.
 */
class OpenFile {
public:
    /**
     * Null, and a line in the log, when it cannot be opened. Does not wait for the other end of a
     * pipe.
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
     * Fills `size` bytes unless the file ends before; bytes read, -1 on an error before the first.
     */
    int64_t read(void* dst, size_t size);
    /**
     * Writes `count` items of `item_bytes`; the items written whole. Behind a failure no part of an
     * item is left at the end of an ordinary file, nor of a transport stream anything of the whole
     * call. Only the first failure of a file is logged, every one is counted.
     */
    uint64_t write_items(const void* src, uint64_t item_bytes, uint64_t count);
    bool seek(int64_t offset, int whence);
    /**
     * Starts what was written on its way to the medium, without waiting for it, and closes; false
     * when the system tells of a loss. While another thread is inside a call the descriptor stays
     * open: it is closed with the last owner, and the answer is false.
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
