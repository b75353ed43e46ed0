#pragma once

#include <cstdint>
#include <string>

namespace client {

/** A picture size in pixels. */
struct Size {
    uint32_t width = 0;
    uint32_t height = 0;
    bool operator==(const Size&) const = default;
};

inline constexpr Size smallest_size{64, 64};
inline constexpr Size greatest_size{3840, 2160};

/** Why a picture of this size cannot be captured, as the end of a sentence; empty if it can. */
std::string size_problem(Size size);

/** The size to capture by default: the display's, made even and scaled down to `greatest_size`. */
Size size_for_display(Size display);

} // namespace client
