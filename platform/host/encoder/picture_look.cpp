#include "encoder/picture_look.h"

#include <algorithm>
#include <cstring>

namespace zu3host {
namespace {

// Pixels of a line in a run. The film with most runs of one value, at the least share: black bars
// have a quarter of the screen; a desktop with a video in a quarter of it has half
// (docs/measurements/content.md).
constexpr uint32_t run = 16;
constexpr double least_flat_of_screens = 1.0 / 3;

constexpr uint32_t least_lines = 180;

/** All pixels equal the first one if each equals the next one. */
bool is_flat(const uint8_t* pixels)
{
    return std::memcmp(pixels, pixels + 1, run - 1) == 0;
}

} // namespace

bool looks_like_film(const uint8_t* luma, PictureLayout layout)
{
    const uint32_t step = std::max(layout.lines / least_lines, 1u);
    uint32_t runs = 0, flat = 0;
    for (uint32_t line = step / 2; line < layout.lines; line += step) {
        const uint8_t* const pixels = luma + size_t{line} * layout.stride;
        for (uint32_t x = 0; x + run <= layout.stride; x += run, ++runs)
            flat += is_flat(pixels + x);
    }
    return flat < runs * least_flat_of_screens;
}

} // namespace zu3host
