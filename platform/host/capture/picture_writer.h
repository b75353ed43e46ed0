#pragma once

#include "capture/change_history.h"
#include "capture/image_placement.h"
#include "capture/picture_pool.h"
#include "capture/picture_source.h"

#include <cstdint>

namespace zu3host {

/**
 * Writes the images of a source into the pictures of a pool. Each picture gets only the changes
 * that it missed. One thread at a time.
 */
class PictureWriter {
public:
    /** Notes an image of the source. Call it for each image in order, even if it is not written. */
    void note(const BgraImage& image) { history_.note(image); }
    /**
     * Writes the noted image into the visible part of a taken picture. Throws std::bad_alloc, after
     * which the picture's contents are undefined.
     */
    void write(BgraImage image, PicturePool& pool, uint32_t index, PictureSize visible);

private:
    void note_changes(PicturePool::Contents& contents, PictureSize image, PictureLayout layout);

    ChangeHistory history_;
    // of the last written image, 0 = none
    uint64_t written_ = 0;
    // that image's
    Placement placed_{};
    BgraScaler scaler_;
};

} // namespace zu3host
