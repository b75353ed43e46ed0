#pragma once

#include "base/picture_layout.h"

#include <cstdint>
#include <span>

namespace zu3host {

/** In pixels of an image or a picture; x and y count from its top left. */
struct PictureRectangle {
    uint32_t x;
    uint32_t y;
    PictureSize size;
};

/** The parts of an image or a picture that may differ from an earlier one. */
struct ChangedParts {
    /** serial of the earlier one; 0 when every pixel may differ */
    uint64_t since = 0;
    /** within the image; may overlap; the owner of the image documents their lifetime */
    std::span<const PictureRectangle> parts;
};

} // namespace zu3host
