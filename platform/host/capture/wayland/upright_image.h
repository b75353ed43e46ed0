#pragma once

#include "capture/picture_source.h"
#include "capture/wayland/copy_buffer.h"

#include <cstdint>
#include <vector>

namespace zu3host {

/** Whether copies of this wl_shm_format can be shown. */
bool is_known_format(uint32_t shm_format);

/** Lines and columns of a copy against what people see on the output. */
struct Orientation {
    /** wl_output_transform, 0 to 7: counterclockwise quarters, and 4 = mirrored first */
    uint32_t transform = 0;
    /** the first line is the lowest one */
    bool upside_down = false;
    bool operator==(const Orientation&) const = default;
};

/** The size that people see. */
PictureSize upright_size(PictureSize copied, Orientation orientation);
/** A part of a copy as a part of what people see. */
PictureRectangle upright_part(const PictureRectangle& part, PictureSize copied,
                              Orientation orientation);

/** Turns copies upright, and their pixels to BGRA, in memory that is kept from one to the next. */
class UprightImage {
public:
    /**
     * `changed` and `serial` are left to the caller. A copy that needs no change is returned as it
     * is. The layout must be possible and its format known.
     */
    BgraImage of(const CopyLayout& layout, const uint8_t* copied, Orientation orientation);

private:
    // of each step, empty while it is not needed
    std::vector<uint8_t> straight_;
    std::vector<uint8_t> turned_;
    std::vector<uint8_t> mirrored_;
};

} // namespace zu3host
