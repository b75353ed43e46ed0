#pragma once

#include <cstdint>
#include <memory>
#include <span>

namespace zu3host {

/**
 * The memory of one output ring. The contract gives the same region to every multiplexer of the
 * process. The first one uses it; any other one meanwhile gets a separate device block of the same
 * size, so that their streams stay apart. Released on destruction.
 */
class OutputRegion {
public:
    /**
     * @return null, with a log line, if `address` is not `size` bytes of device memory or no block
     * is available
     */
    static std::unique_ptr<OutputRegion> claim(uint32_t address, uint32_t size);
    OutputRegion(const OutputRegion&) = delete;
    OutputRegion& operator=(const OutputRegion&) = delete;
    ~OutputRegion();

    std::span<uint8_t> memory() const { return memory_; }

private:
    OutputRegion(std::span<uint8_t> memory, uint64_t own_block)
        : memory_(memory), own_block_(own_block)
    {
    }

    std::span<uint8_t> memory_;
    /** physical address of a block made here; 0 = the given region */
    uint64_t own_block_;
};

} // namespace zu3host
