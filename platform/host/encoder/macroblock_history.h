#pragma once

#include "base/changed_parts.h"
#include "base/picture_layout.h"

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace zu3host {

/**
 * A picture equals the last encoded one outside of these rectangles. An empty span means that
 * nothing differs, nullopt that all may differ.
 */
using ChangedRectangles = std::optional<std::span<const PictureRectangle>>;

/**
 * Finds the macroblocks that x264 need not search for changes. A macroblock that has just changed
 * is not among them, since x264 refines it for some pictures. Not thread-safe.
 */
class MacroblockHistory {
public:
    explicit MacroblockHistory(PictureLayout layout);

    /**
     * x264's mb_info of the next picture: a flag per macroblock, raster order; null if the changes
     * are unknown. Valid until the next call.
     */
    uint8_t* constant_in(ChangedRectangles changed);
    /** Call it after x264 has encoded the picture. */
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
