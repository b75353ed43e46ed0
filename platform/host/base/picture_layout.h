#pragma once

#include <cstddef>
#include <cstdint>

namespace zu3host {

/**
 * Where the planes of an NV12 picture lie on this platform: lines of the width rounded up to 16,
 * the height rounded up to 32 luma lines, the CbCr plane straight behind them. Capture writes it,
 * the encoder reads it, and a raw source file is a row of such pictures.
 */
struct PictureLayout {
    /** bytes per line of both planes */
    uint32_t stride;
    /** luma lines; the chroma plane has half as many */
    uint32_t lines;
    bool operator==(const PictureLayout&) const = default;

    static constexpr PictureLayout of(uint32_t width, uint32_t height)
    {
        return {(width + 15u) & ~15u, (height + 31u) & ~31u};
    }
    constexpr size_t luma_bytes() const { return size_t{stride} * lines; }
    constexpr size_t picture_bytes() const { return luma_bytes() + luma_bytes() / 2; }
};

/** Greatest picture that capture and encoder handle; checked before any size is computed. */
inline constexpr uint32_t max_picture_width = 4096;
inline constexpr uint32_t max_picture_height = 2304;

/** Alignment of every picture's address, as the encoder's capabilities report it. */
inline constexpr uint32_t picture_alignment = 4096;

} // namespace zu3host
