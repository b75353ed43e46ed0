#pragma once

#include <common/picture_size.h>
#include <common/rounding.h>
#include <cstddef>
#include <cstdint>

namespace zu3host {

using common::PictureSize;

/**
 * The planes of an NV12 picture on this platform: lines of the width rounded up to 16, the height
 * rounded up to 32 luma lines, the CbCr plane directly behind them. Capture writes it, the encoder
 * reads it, and a raw source file is a sequence of such pictures.
 */
struct PictureLayout {
    /** bytes per line of both planes */
    uint32_t stride;
    /** luma lines; the chroma plane has half as many */
    uint32_t lines;
    bool operator==(const PictureLayout&) const = default;

    /** Neither may exceed 2^32 - 32. */
    static constexpr PictureLayout of(uint32_t width, uint32_t height)
    {
        return {common::round_up(width, 16u), common::round_up(height, 32u)};
    }
    constexpr size_t luma_bytes() const { return size_t{stride} * lines; }
    constexpr size_t picture_bytes() const { return luma_bytes() + luma_bytes() / 2; }
};

/** Greatest picture that the capture handles; checked before any size is computed. */
inline constexpr uint32_t max_picture_width = 4096;
inline constexpr uint32_t max_picture_height = 2304;

/** The pictures that the encoder handles; the greatest also with its lines rounded up. */
inline constexpr uint32_t min_encoder_size = common::least_picture_size.width;
inline constexpr uint32_t max_encoder_width = common::greatest_picture_size.width;
inline constexpr uint32_t max_encoder_height =
    PictureLayout::of(max_encoder_width, common::greatest_picture_size.height).lines;
constexpr bool in_encoder_range(uint32_t width, uint32_t height)
{
    return width >= min_encoder_size && width <= max_encoder_width && height >= min_encoder_size &&
           height <= max_encoder_height;
}

/** Alignment of every picture's address, as the encoder's capabilities report it. */
inline constexpr uint32_t picture_alignment = 4096;

} // namespace zu3host
