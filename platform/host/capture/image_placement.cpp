#include "capture/image_placement.h"

#include "base/picture_layout.h"

#include <algorithm>
#include <cstring>
#include <libyuv/convert_from_argb.h>
#include <libyuv/scale_argb.h>

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

/** The pixels that depend on a span of a line when the line is scaled: their start and number. */
std::pair<uint32_t, uint32_t> scaled_span(uint32_t start, uint32_t length, uint32_t from,
                                          uint32_t to)
{
    // A scaled pixel depends on the pixel at its rounded place and that pixel's neighbors.
    constexpr int64_t reach = 2;
    const int64_t begin = (int64_t{start} - reach) * to / from - reach;
    const int64_t end = (int64_t{start} + length + reach) * to / from + reach + 1;
    const auto first = static_cast<uint32_t>(std::clamp<int64_t>(begin, 0, to));
    return {first, static_cast<uint32_t>(std::clamp<int64_t>(end, 0, to)) - first};
}

constexpr uint8_t black_luma = 16;
constexpr uint8_t no_colour = 128;

struct Plane {
    uint8_t* data;
    // also its width
    uint32_t stride;
    uint32_t lines;
};

/** A part of a plane, in bytes and lines. */
struct Window {
    uint32_t x;
    uint32_t y;
    uint32_t width;
    uint32_t height;
};

void fill_around(const Plane& plane, const Window& kept, uint8_t value)
{
    const uint32_t right = kept.x + kept.width;
    const uint32_t bottom = kept.y + kept.height;
    std::memset(plane.data, value, size_t{plane.stride} * kept.y);
    for (uint32_t line = kept.y; line < bottom; ++line) {
        uint8_t* start = plane.data + size_t{plane.stride} * line;
        std::memset(start, value, kept.x);
        std::memset(start + right, value, plane.stride - right);
    }
    std::memset(plane.data + size_t{plane.stride} * bottom, value,
                size_t{plane.stride} * (plane.lines - bottom));
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
        image.width = common::round_up(box.width, 2u);
        image.height = scaled_even(source.height, box.width, source.width, box.height);
    } else {
        image.height = common::round_up(box.height, 2u);
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

BgraImage BgraScaler::scaled(const BgraImage& image, PictureSize size)
{
    if (image.size == size)
        return image;
    const uint32_t stride = size.width * 4;
    pixels_.resize(size_t{stride} * size.height);
    // Scaled before the conversion: one pass over packed pixels costs half of what two passes over
    // planes do.
    libyuv::ARGBScale(image.pixels, static_cast<int>(image.stride),
                      static_cast<int>(image.size.width), static_cast<int>(image.size.height),
                      pixels_.data(), static_cast<int>(stride), static_cast<int>(size.width),
                      static_cast<int>(size.height), libyuv::kFilterBox);
    return {pixels_.data(), stride, size, image.serial};
}

PartList scaled_parts(const PartList& parts, PictureSize size)
{
    const PictureSize image = parts.image();
    if (image == size)
        return parts;
    PartList scaled(size);
    for (const PictureRectangle& part : parts.parts()) {
        const auto [x, width] = scaled_span(part.x, part.size.width, image.width, size.width);
        const auto [y, height] = scaled_span(part.y, part.size.height, image.height, size.height);
        scaled.add({x, y, {width, height}});
    }
    return scaled;
}

void write_nv12(const BgraImage& image, const PictureRectangle& part, const Placement& placement,
                uint8_t* picture, PictureLayout layout)
{
    const uint32_t x = placement.x + part.x;
    const uint32_t y = placement.y + part.y;
    uint8_t* luma = picture + size_t{layout.stride} * y + x;
    uint8_t* chroma = picture + layout.luma_bytes() + size_t{layout.stride} * (y / 2) + x;
    const uint8_t* from = image.pixels + size_t{image.stride} * part.y + size_t{4} * part.x;
    const int stride = static_cast<int>(layout.stride);
    libyuv::ARGBToNV12(from, static_cast<int>(image.stride), luma, stride, chroma, stride,
                       static_cast<int>(part.size.width), static_cast<int>(part.size.height));
}

void blacken_border(const Placement& placement, uint8_t* picture, PictureLayout layout)
{
    const PictureSize image = placement.image;
    fill_around({picture, layout.stride, layout.lines},
                {placement.x, placement.y, image.width, image.height}, black_luma);
    fill_around({picture + layout.luma_bytes(), layout.stride, layout.lines / 2},
                {placement.x, placement.y / 2, common::round_up(image.width, 2u),
                 common::round_up(image.height, 2u) / 2},
                no_colour);
}

} // namespace zu3host
