#pragma once

#include "base/changed_parts.h"
#include "base/picture_layout.h"

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace zu3host {

/**
 * Outside of these rectangles a picture equals the last one that was encoded. None: the whole
 * picture does; nullopt: all of it may differ.
 */
using ChangedRectangles = std::optional<std::span<const PictureRectangle>>;

/**
 * Which macroblocks x264 need not search for changes. A macroblock that has just changed is not
 * among them: x264 goes on refining it for some pictures. Not thread-safe.
 */
class MacroblockHistory {
public:
    explicit MacroblockHistory(PictureLayout layout);

    /**
     * x264's mb_info of the next picture: a flag per macroblock, raster order; null without
     * knowledge. Lives until the next call.
     */
    uint8_t* constant_in(ChangedRectangles changed);
    /** x264 has encoded the picture. */
    void encoded(bool key);

private:
    void forget(const PictureRectangle& part);
    void find_refined();

    const uint32_t columns_;
    const uint32_t rows_;
    // per macroblock, the pictures that x264 has encoded since it changed or a key frame came
    std::vector<uint8_t> refinements_;
    std::vector<uint8_t> refined_;
    std::vector<uint8_t> all_;
};

} // namespace zu3host
