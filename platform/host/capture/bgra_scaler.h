#pragma once

#include "capture/picture_source.h"
#include "capture/placement.h"

#include <vector>

namespace zu3host {

/** Scales images to the size of their placement, in a buffer that is kept from one to the next. */
class BgraScaler {
public:
    /**
     * The image itself where it has that size, else a scaled one, which lives until the next call.
     */
    BgraImage scaled(const BgraImage& image, PictureSize size);

private:
    std::vector<uint8_t> pixels_;
};

} // namespace zu3host
