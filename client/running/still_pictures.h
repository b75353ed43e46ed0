#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "command_line/options.h"

namespace client {

/**
 * The still-frame capture of the library, with one mapped buffer, from its opening to its close.
 */
class StillPictures {
public:
    /** Opens it and maps its buffer; throws Failure. */
    StillPictures(Size size, uint32_t format, bool osd);
    StillPictures(const StillPictures&) = delete;
    StillPictures& operator=(const StillPictures&) = delete;
    ~StillPictures();

    /** Captures the current picture of the display; throws Failure. */
    void capture();
    /**
     * The captured bytes unconverted: lines without gaps, the chroma plane after the luma plane.
     */
    std::vector<uint8_t> raw_bytes() const;
    /** The captured picture as lines of B, G, R bytes without gaps. */
    std::vector<uint8_t> bgr_bytes() const;

private:
    /** A mapped plane; the mapping begins at a page, the plane perhaps later. */
    struct Plane {
        uint8_t* mapping = nullptr;
        size_t mapped = 0;
        const uint8_t* start = nullptr;
        size_t bytes = 0;
    };
    void map_planes();
    Plane map_plane(int fd, uint32_t offset, uint64_t size, size_t used) const;
    void release();

    Size size_;
    uint32_t format_;
    std::vector<Plane> planes_;
};

} // namespace client
