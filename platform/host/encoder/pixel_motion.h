#pragma once

#include "base/picture_layout.h"

#include <cstdint>
#include <vector>

namespace zu3host {

/**
 * Detects content that moves by whole pixels, such as a scrolled page or a dragged window: searches
 * for macroblocks of a picture in the previous one. Not thread-safe.
 */
class PixelMotion {
public:
    enum class Finding {
        /** The pictures are the same. */
        nothing,
        whole_pixels,
        /** The content is new, or moves by fractions of a pixel, or too far. */
        other
    };

    explicit PixelMotion(PictureLayout layout) : layout_(layout) {}

    /** Copies the luma of a picture in the layout. The first call allocates. */
    void remember(const uint8_t* luma);
    bool remembers() const { return remembers_; }
    /** Compares the luma of a picture with the remembered one; call it only if remembers(). */
    Finding compare(const uint8_t* luma);
    void forget() { remembers_ = false; }

private:
    /** the top left pixel of a macroblock, or a distance */
    struct Place {
        int x;
        int y;
    };
    const uint8_t* at(const uint8_t* luma, Place place) const;
    bool is_flat(const uint8_t* luma, Place place) const;
    bool came_from(const uint8_t* luma, Place place, Place distance) const;
    bool came_from_nearby(const uint8_t* luma, Place place);

    const PictureLayout layout_;
    std::vector<uint8_t> before_;
    bool remembers_ = false;
    // of the last macroblock found; its neighbors usually move alike
    Place distance_{0, 0};
};

} // namespace zu3host
