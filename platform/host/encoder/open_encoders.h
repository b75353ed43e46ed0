#pragma once

#include <cstdint>
#include <optional>

namespace zu3host {

struct PictureSize {
    uint32_t width;
    uint32_t height;
    bool operator==(const PictureSize&) const = default;
};

/**
 * The exact size of an open encoder whose pictures have the layout of `width16` x `height32`,
 * newest first. The capture is told the rounded size only; with this it knows which part of the
 * picture will be seen.
 */
std::optional<PictureSize> exact_size_of_open_encoder(uint32_t width16, uint32_t height32);

/**
 * On an encoder's callback thread, while the callback runs: the time of the picture that the frame
 * was made from, microseconds of the monotonic clock: when a captured one was due, else the time
 * stamp that it came with. Nothing on any other thread. It gives the multiplexer the time of key
 * frames, which reach it without one, and the clock that sound is laid against.
 */
std::optional<uint64_t> time_of_frame_in_callback();

} // namespace zu3host
