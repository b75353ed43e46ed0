#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

namespace zu3host {

/** A shared mapping of a file, wholly below 4 GiB; unmapped with its owner. Move-only. */
class LowMapping {
public:
    LowMapping() = default;
    LowMapping(LowMapping&& other) noexcept
        : start_(std::exchange(other.start_, nullptr)), reserved_(std::exchange(other.reserved_, 0))
    {
    }
    LowMapping& operator=(LowMapping&& other) noexcept
    {
        std::swap(start_, other.start_);
        std::swap(reserved_, other.reserved_);
        return *this;
    }
    ~LowMapping();

    /**
     * Maps the first `size` bytes of `fd`, a multiple of the page size, for reading and writing.
     * The page behind them cannot be touched. An empty mapping, and errno, when the room below 4
     * GiB is taken or the kernel refuses.
     */
    static LowMapping of(int fd, size_t size);

    explicit operator bool() const { return start_ != nullptr; }
    uint8_t* start() const { return start_; }

private:
    LowMapping(uint8_t* start, size_t reserved) : start_(start), reserved_(reserved) {}

    uint8_t* start_ = nullptr;
    /** bytes, with the page behind */
    size_t reserved_ = 0;
};

} // namespace zu3host
