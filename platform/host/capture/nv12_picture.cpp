#include "capture/nv12_picture.h"

#include <cstring>
#include <libyuv/convert_from_argb.h>

namespace zu3host {

namespace {

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

constexpr uint32_t round_up_to_even(uint32_t value)
{
    return (value + 1) & ~1u;
}

} // namespace

void write_nv12(const BgraImage& image, const Placement& placement, uint8_t* picture,
                PictureLayout layout)
{
    uint8_t* luma = picture + size_t{layout.stride} * placement.y + placement.x;
    uint8_t* chroma =
        picture + layout.luma_bytes() + size_t{layout.stride} * (placement.y / 2) + placement.x;
    const int stride = static_cast<int>(layout.stride);
    libyuv::ARGBToNV12(image.pixels, static_cast<int>(image.stride), luma, stride, chroma, stride,
                       static_cast<int>(image.size.width), static_cast<int>(image.size.height));
}

void blacken_border(const Placement& placement, uint8_t* picture, PictureLayout layout)
{
    const PictureSize image = placement.image;
    fill_around({picture, layout.stride, layout.lines},
                {placement.x, placement.y, image.width, image.height}, black_luma);
    fill_around({picture + layout.luma_bytes(), layout.stride, layout.lines / 2},
                {placement.x, placement.y / 2, round_up_to_even(image.width),
                 round_up_to_even(image.height) / 2},
                no_colour);
}

} // namespace zu3host
