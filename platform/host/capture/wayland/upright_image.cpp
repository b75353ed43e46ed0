#include "capture/wayland/upright_image.h"

#include <libyuv/convert_argb.h>
#include <libyuv/planar_functions.h>
#include <libyuv/rotate_argb.h>
#include <wayland-client.h>

namespace zu3host {

namespace {

bool has_blue_first(uint32_t shm_format)
{
    return shm_format == WL_SHM_FORMAT_XRGB8888 || shm_format == WL_SHM_FORMAT_ARGB8888;
}

/** Clockwise quarters that undo the output's counterclockwise ones. */
uint32_t quarters(Orientation orientation)
{
    return orientation.transform & 3;
}

bool is_mirrored(Orientation orientation)
{
    return (orientation.transform & 4) != 0;
}

constexpr libyuv::RotationMode rotations[] = {libyuv::kRotate0, libyuv::kRotate90,
                                              libyuv::kRotate180, libyuv::kRotate270};

int stride_of(PictureSize size)
{
    return static_cast<int>(size.width * 4);
}

uint8_t* resized(std::vector<uint8_t>& pixels, PictureSize size)
{
    pixels.resize(size_t{size.width} * 4 * size.height);
    return pixels.data();
}

} // namespace

bool is_known_format(uint32_t shm_format)
{
    return has_blue_first(shm_format) || shm_format == WL_SHM_FORMAT_XBGR8888 ||
           shm_format == WL_SHM_FORMAT_ABGR8888;
}

PictureSize upright_size(PictureSize copied, Orientation orientation)
{
    return quarters(orientation) & 1 ? PictureSize{copied.height, copied.width} : copied;
}

PictureRectangle upright_part(const PictureRectangle& part, PictureSize copied,
                              Orientation orientation)
{
    const uint32_t behind_x = copied.width - part.x - part.size.width;
    const uint32_t below_y = copied.height - part.y - part.size.height;
    const uint32_t y = orientation.upside_down ? below_y : part.y;
    const uint32_t below = orientation.upside_down ? part.y : below_y;
    const PictureSize across{part.size.height, part.size.width};
    PictureRectangle turned{part.x, y, part.size};
    switch (quarters(orientation)) {
    case 1:
        turned = {below, part.x, across};
        break;
    case 2:
        turned = {behind_x, below, part.size};
        break;
    case 3:
        turned = {y, behind_x, across};
        break;
    default:
        break;
    }
    if (is_mirrored(orientation))
        turned.x = upright_size(copied, orientation).width - turned.x - turned.size.width;
    return turned;
}

BgraImage UprightImage::of(const CopyLayout& layout, const uint8_t* copied, Orientation orientation)
{
    BgraImage image{copied, layout.stride, layout.size, 0};
    const int width = static_cast<int>(image.size.width);
    const int height = static_cast<int>(image.size.height);
    if (!has_blue_first(layout.format)) {
        uint8_t* const swapped = resized(straight_, image.size);
        libyuv::ABGRToARGB(image.pixels, static_cast<int>(image.stride), swapped,
                           stride_of(image.size), width, height);
        image.pixels = swapped;
        image.stride = image.size.width * 4;
    }
    if (quarters(orientation) || orientation.upside_down) {
        const PictureSize turned_size = upright_size(image.size, orientation);
        uint8_t* const turned = resized(turned_, turned_size);
        libyuv::ARGBRotate(
            image.pixels, static_cast<int>(image.stride), turned, stride_of(turned_size), width,
            orientation.upside_down ? -height : height, rotations[quarters(orientation)]);
        image = {turned, turned_size.width * 4, turned_size, 0};
    }
    if (is_mirrored(orientation)) {
        uint8_t* const mirrored = resized(mirrored_, image.size);
        libyuv::ARGBMirror(image.pixels, static_cast<int>(image.stride), mirrored,
                           stride_of(image.size), static_cast<int>(image.size.width),
                           static_cast<int>(image.size.height));
        image.pixels = mirrored;
        image.stride = image.size.width * 4;
    }
    return image;
}

} // namespace zu3host
