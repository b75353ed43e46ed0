#pragma once

#include "base/picture_layout.h"
#include "capture/part_list.h"
#include "capture/picture_source.h"

#include <cstdint>
#include <vector>

namespace zu3host {

/**
 * The place of the screen's image in a picture. Offsets are even, so that they hold for the chroma
 * plane too.
 */
struct Placement {
    uint32_t x;
    uint32_t y;
    /** size after scaling */
    PictureSize image;
    bool operator==(const Placement&) const = default;
};

/**
 * The size of a display without the last column or row that is one too many for `visible`: sizes of
 * pictures are even, and scaling a display of odd size would blur all of it. A display that is
 * larger still keeps its size, to be scaled down.
 */
PictureSize without_odd_edge(PictureSize display, PictureSize visible);

/**
 * `source` scaled with its shape kept into the middle of `box`; even sizes unless it is exactly as
 * large. Neither is empty.
 */
Placement fit_into(PictureSize source, PictureSize box);

/**
 * The placement of a display's image in a picture of size `out`, whose top left part `visible` is
 * shown. A display that fits the visible part and has the picture's layout is placed one to one at
 * the top left: since the contract rounds sizes, that is the case of a recording in the display's
 * size.
 */
Placement place_display(PictureSize display, PictureSize out, PictureSize visible);

/** Scales images to the size of their placement, in a buffer that is kept from one to the next. */
class BgraScaler {
public:
    /**
     * The image itself if it has that size, otherwise a scaled one, valid until the next call.
     */
    BgraImage scaled(const BgraImage& image, PictureSize size);

private:
    std::vector<uint8_t> pixels_;
};

/**
 * The changed parts of an image scaled to `size`; larger than the scaled parts, since a scaled
 * pixel depends on its neighbors.
 */
PartList scaled_parts(const PartList& parts, PictureSize size);

/**
 * Converts a part of an image, which has its placement's size, to its place in the NV12 picture at
 * `picture`; BT.601 limited. The part's corners must be even or at the image's edge; then the
 * result equals that of converting the whole image.
 */
void write_nv12(const BgraImage& image, const PictureRectangle& part, const Placement& placement,
                uint8_t* picture, PictureLayout layout);

/** Blackens the part of the picture that the placement leaves free. */
void blacken_border(const Placement& placement, uint8_t* picture, PictureLayout layout);

} // namespace zu3host
