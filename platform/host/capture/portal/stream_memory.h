#pragma once

#include <common/descriptor.h>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace zu3host {

/**
 * Memory that an untrusted process shares. It is mapped only if sealed against shrinking, since an
 * access beyond its end would kill this process; other memory is read by system calls.
 */
class StreamMemory {
public:
    /**
     * @param fd stays the caller's
     * @param offset,size the shared bytes of `fd`
     */
    StreamMemory(int fd, uint64_t offset, uint64_t size);
    /** Memory that PipeWire has mapped. */
    StreamMemory(const void* mapped, uint64_t size);
    ~StreamMemory();
    StreamMemory(const StreamMemory&) = delete;
    StreamMemory& operator=(const StreamMemory&) = delete;

    /** Whether `fd` has that many bytes, and could be mapped or duplicated. */
    bool usable() const { return usable_; }
    /** bytes; 0 if not usable */
    uint64_t size() const { return usable_ ? size_ : 0; }
    /**
     * Bytes at `offset`, valid until the next call; the other process may change them at any time.
     * Null if they lie beyond the memory, or if it was shrunk.
     */
    const uint8_t* bytes(uint64_t offset, uint64_t count);

private:
    void map(int fd);

    const uint64_t offset_;
    const uint64_t size_;
    bool usable_ = false;
    // start of the mapping; null if there is none
    const uint8_t* start_ = nullptr;
    // start of the page of offset_; null if there is nothing to unmap
    void* mapping_ = nullptr;
    size_t mapped_ = 0;
    // not mapped
    common::Descriptor file_;
    std::vector<uint8_t> copy_;
};

} // namespace zu3host
