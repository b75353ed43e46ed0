#pragma once

#include "capture/picture_source.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace zu3host {

/**
 * A few rectangles of an image that cover everything added, and perhaps more: merging near ones is
 * cheaper than fetching each. Their corners are even, for planes of half the resolution, except at
 * the right and lower edge of an image of odd size. They may overlap. Allocates nothing.
 */
class PartList {
public:
    static constexpr size_t most = 8;

    PartList() = default;
    explicit PartList(PictureSize image) : image_(image) {}

    /** Clips the part to the image. No part may reach beyond 2^32 - 2. */
    void add(const PictureRectangle& part);
    void add(std::span<const PictureRectangle> parts)
    {
        for (const PictureRectangle& part : parts)
            add(part);
    }
    void add_all();
    void clear() { count_ = 0; }

    bool empty() const { return count_ == 0; }
    bool is_all() const { return count_ == 1 && parts_[0].size == image_; }
    std::span<const PictureRectangle> parts() const { return {parts_.data(), count_}; }
    /** The smallest rectangle that contains all parts; empty if there are none. */
    PictureRectangle bounds() const;
    PictureSize image() const { return image_; }

private:
    PictureSize image_{0, 0};
    std::array<PictureRectangle, most> parts_{};
    size_t count_ = 0;
};

} // namespace zu3host
