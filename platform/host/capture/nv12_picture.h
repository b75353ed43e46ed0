#pragma once

#include "base/picture_layout.h"
#include "capture/picture_source.h"
#include "capture/placement.h"

#include <cstdint>

namespace zu3host {

/**
 * Converts an image, which has its placement's size, to its place in the NV12 picture at `picture`;
 * BT.601 limited.
 */
void write_nv12(const BgraImage& image, const Placement& placement, uint8_t* picture,
                PictureLayout layout);

/** Makes black what the placement leaves of the picture. */
void blacken_border(const Placement& placement, uint8_t* picture, PictureLayout layout);

} // namespace zu3host
