#pragma once

#include "capture/picture_source.h"
#include "capture/wayland/copy_buffer.h"

#include <cstdint>
#include <vector>

namespace zu3host {

/** Whether copies of this wl_shm_format are supported. */
bool is_known_format(uint32_t shm_format);

/** Order of a copy's lines and columns, relative to the output as it is seen. */
struct Orientation {
    /** wl_output_transform, 0 to 7: counterclockwise quarters, and 4 = mirrored first */
    uint32_t transform = 0;
    /** the first line is the lowest one */
    bool upside_down = false;
    bool operator==(const Orientation&) const = default;
};

/** The size after rotation. */
PictureSize upright_size(PictureSize copied, Orientation orientation);
/** A part of a copy in the upright picture. */
PictureRectangle upright_part(const PictureRectangle& part, PictureSize copied,
                              Orientation orientation);

/** Rotates copies upright and converts them to BGRA, in memory that is reused for the next. */
class UprightImage {
public:
    /**
     * The caller sets `changed` and `serial`. A copy that needs no conversion is returned as it
     * is. The layout must be possible and its format supported.
     */
    BgraImage of(const CopyLayout& layout, const uint8_t* copied, Orientation orientation);

private:
    // one per step; empty while not needed
    std::vector<uint8_t> straight_;
    std::vector<uint8_t> turned_;
    std::vector<uint8_t> mirrored_;
};

} // namespace zu3host
