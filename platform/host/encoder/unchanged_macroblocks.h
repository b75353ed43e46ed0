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

/** Finds the macroblocks that x264 need not search for changes. Not thread-safe. */
class UnchangedMacroblocks {
public:
    explicit UnchangedMacroblocks(PictureLayout layout);

    /**
     * Finds those of the next picture.
     * @return x264's mb_info: a flag per macroblock, raster order; null if the changes are unknown.
     * Valid until the next call.
     */
    uint8_t* find(ChangedRectangles changed);
    /** Whether all but a few of the macroblocks that find() looked at last are unchanged. */
    bool almost_all() const { return others_ <= flags_.size() / least_per_other; }

private:
    // a moved pointer or a letter has up to 18 others, of 3680 at 1280x720
    static constexpr size_t least_per_other = 32;

    void mark_changed(const PictureRectangle& part);
    void leave_out_unskippable();

    const uint32_t columns_;
    const uint32_t rows_;
    std::vector<uint8_t> flags_;
    size_t others_;
};

} // namespace zu3host
