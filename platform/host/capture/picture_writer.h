#pragma once

#include "capture/change_history.h"
#include "capture/image_placement.h"
#include "capture/picture_pool.h"
#include "capture/picture_source.h"

#include <cstdint>

namespace zu3host {

/**
 * Writes the images of a source into the pictures of a pool: in each, only what it has missed. One
 * thread at a time.
 */
class PictureWriter {
public:
    /** Notes an image of the source; each one, in order, also if it is not written. */
    void note(const BgraImage& image) { history_.note(image); }
    /**
     * Writes the noted image into a picture that is out, placed into the part of it that is seen.
     * Throws std::bad_alloc, after which the picture has no defined contents.
     */
    void write(BgraImage image, PicturePool& pool, uint32_t index, PictureSize visible);

private:
    void note_changes(PicturePool::Contents& contents, PictureSize image, PictureLayout layout);

    ChangeHistory history_;
    // of the image that was written last, 0 = none
    uint64_t written_ = 0;
    // that image's
    Placement placed_{};
    BgraScaler scaler_;
};

} // namespace zu3host
