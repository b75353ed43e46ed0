#include "encoder/picture_look.h"

#include <cstring>

namespace zu3host {
namespace {

constexpr uint32_t side = 16;
// Films, photographs and an automaton have up to 0.02, a photograph behind a few windows more
// (docs/measurements/content.md).
constexpr double least_flat_of_screens = 0.04;

/** All pixels of a line equal the first one if each equals the next one. */
bool is_flat(const uint8_t* pixels, size_t stride)
{
    if (std::memcmp(pixels, pixels + 1, side - 1) != 0)
        return false;
    for (uint32_t line = 1; line < side; ++line)
        if (std::memcmp(pixels, pixels + line * stride, side) != 0)
            return false;
    return true;
}

} // namespace

bool looks_like_film(const uint8_t* luma, PictureLayout layout)
{
    const uint32_t columns = layout.stride / side;
    uint32_t all = 0, flat = 0;
    for (uint32_t row = 0; row < layout.lines / side; ++row) {
        uint32_t flat_here = 0;
        for (uint32_t column = 0; column < columns; ++column)
            flat_here +=
                is_flat(luma + size_t{row} * side * layout.stride + column * side, layout.stride);
        if (flat_here == columns) // a black bar
            continue;
        all += columns;
        flat += flat_here;
    }
    return all > 0 && flat < all * least_flat_of_screens;
}

} // namespace zu3host
