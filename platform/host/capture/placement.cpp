#include "capture/placement.h"

#include "base/picture_layout.h"

#include <algorithm>

namespace zu3host {

namespace {

/**
 * length * numerator / denominator to the nearest even number, from 2 to `limit` rounded up to
 * even.
 */
uint32_t scaled_even(uint32_t length, uint32_t numerator, uint32_t denominator, uint32_t limit)
{
    const uint64_t twice = 2ull * denominator;
    const uint64_t even = (uint64_t{length} * numerator + denominator) / twice * 2;
    return static_cast<uint32_t>(std::clamp<uint64_t>(even, 2, (uint64_t{limit} + 1) & ~1ull));
}

uint32_t middle(uint32_t box, uint32_t length)
{
    return length < box ? (box - length) / 2 & ~1u : 0;
}

} // namespace

PictureSize without_odd_edge(PictureSize display, PictureSize visible)
{
    if (display.width > visible.width + 1 || display.height > visible.height + 1)
        // scaled down in any case
        return display;
    return {std::min(display.width, visible.width), std::min(display.height, visible.height)};
}

Placement fit_into(PictureSize source, PictureSize box)
{
    if (source == box)
        return {0, 0, source};
    PictureSize image{};
    const bool width_decides =
        uint64_t{source.width} * box.height >= uint64_t{source.height} * box.width;
    if (width_decides) {
        image.width = (box.width + 1) & ~1u;
        image.height = scaled_even(source.height, box.width, source.width, box.height);
    } else {
        image.height = (box.height + 1) & ~1u;
        image.width = scaled_even(source.width, box.height, source.height, box.width);
    }
    return {middle(box.width, image.width), middle(box.height, image.height), image};
}

Placement place_display(PictureSize display, PictureSize out, PictureSize visible)
{
    const PictureLayout layout = PictureLayout::of(display.width, display.height);
    const bool same_layout = layout.stride == out.width && layout.lines == out.height;
    if (same_layout && display.width <= visible.width && display.height <= visible.height)
        return {0, 0, display};
    return fit_into(display, visible);
}

} // namespace zu3host
