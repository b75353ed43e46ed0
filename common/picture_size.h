#pragma once

#include <cstdint>

namespace common {

/** Of a picture, in pixels. */
struct PictureSize {
    uint32_t width = 0;
    uint32_t height = 0;
    bool operator==(const PictureSize&) const = default;
};

/** The sizes that can be recorded, both included. */
inline constexpr PictureSize least_picture_size{64, 64};
inline constexpr PictureSize greatest_picture_size{3840, 2160};

} // namespace common
