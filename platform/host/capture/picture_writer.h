#pragma once

#include "capture/image_placement.h"
#include "capture/part_list.h"
#include "capture/picture_pool.h"
#include "capture/picture_source.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace zu3host {

/**
 * The changed parts between successive images of a source, for its last images. One thread at a
 * time.
 */
class ChangeHistory {
public:
    /** Notes an image, in the order of the grabs. */
    void note(const BgraImage& image);
    /**
     * Adds to `parts` everything that may differ between image `serial` and the last noted one; the
     * whole image if that is unknown.
     */
    void add_since(uint64_t serial, PartList& parts) const;

private:
    struct Step {
        uint64_t serial = 0;
        PartList changed;
    };
    static constexpr size_t most = 32;

    const Step& step_back(size_t steps) const { return steps_[(newest_ + most - steps) % most]; }

    // a ring; each step begins with the image at which its predecessor ends
    std::array<Step, most> steps_{};
    size_t newest_ = 0;
    size_t count_ = 0;
    PictureSize size_{0, 0};
};

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
