#include "capture/bgra_scaler.h"

#include <libyuv/scale_argb.h>

namespace zu3host {

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

} // namespace zu3host
