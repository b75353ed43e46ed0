#pragma once

#include <common/descriptor.h>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace zu3host {

/**
 * Memory that another process shares and may lie about. It is mapped only if that process cannot
 * shrink it any more, since an access beyond its end would kill this one; other memory is read.
 */
class StreamMemory {
public:
    /**
     * @param fd stays the caller's
     * @param offset,size bytes of `fd` that are shared
     */
    StreamMemory(int fd, uint64_t offset, uint64_t size);
    /** Memory of PipeWire itself, which has mapped it. */
    StreamMemory(const void* mapped, uint64_t size);
    ~StreamMemory();
    StreamMemory(const StreamMemory&) = delete;
    StreamMemory& operator=(const StreamMemory&) = delete;

    /** Whether `fd` has so many bytes, and could be mapped or duplicated. */
    bool usable() const { return usable_; }
    /** bytes; 0 if not usable */
    uint64_t size() const { return usable_ ? size_ : 0; }
    /**
     * Bytes at `offset`, until the next call; their process may change them at any time. Null if
     * they lie beyond the memory, or if that was shrunk.
     */
    const uint8_t* bytes(uint64_t offset, uint64_t count);

private:
    void map(int fd);

    const uint64_t offset_;
    const uint64_t size_;
    bool usable_ = false;
    // start of the mapping; null if there is none
    const uint8_t* start_ = nullptr;
    // from the page that offset_ lies in; null if there is nothing to unmap
    void* mapping_ = nullptr;
    size_t mapped_ = 0;
    // not mapped
    common::Descriptor file_;
    std::vector<uint8_t> copy_;
};

} // namespace zu3host
