#pragma once

#include "capture/part_list.h"

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

} // namespace zu3host
