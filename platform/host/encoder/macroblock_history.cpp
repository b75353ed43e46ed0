#include "encoder/macroblock_history.h"

#include <algorithm>
#include <x264.h>

namespace zu3host {
namespace {

constexpr uint32_t macroblock = 16;

// After this many pictures x264 refines almost nothing more
// (docs/measurements/unchanged_macroblocks.md).
constexpr uint8_t refinements_until_told = 3;

} // namespace

MacroblockHistory::MacroblockHistory(PictureLayout layout)
    : columns_(layout.stride / macroblock), rows_(layout.lines / macroblock),
      refinements_(size_t{columns_} * rows_), refined_(refinements_.size()),
      all_(refinements_.size(), X264_MBINFO_CONSTANT)
{
}

uint8_t* MacroblockHistory::constant_in(ChangedRectangles changed)
{
    if (!changed) {
        std::ranges::fill(refinements_, uint8_t{0});
        return nullptr;
    }
    if (changed->empty())
        return all_.data();
    for (const PictureRectangle& part : *changed)
        forget(part);
    find_refined();
    return refined_.data();
}

void MacroblockHistory::forget(const PictureRectangle& part)
{
    const auto end = [](uint32_t start, uint32_t length, uint32_t most) {
        const uint64_t past = uint64_t{start} + length;
        return length == 0 ? 0 : std::min((past + macroblock - 1) / macroblock, uint64_t{most});
    };
    const uint64_t left = part.x / macroblock, right = end(part.x, part.size.width, columns_);
    const uint64_t bottom = end(part.y, part.size.height, rows_);
    for (uint64_t row = part.y / macroblock; row < bottom && left < right; ++row)
        std::fill_n(&refinements_[row * columns_ + left], right - left, uint8_t{0});
}

// x264 codes a constant macroblock without motion. If the motion predicted from its neighbors is
// not zero, it cannot be skipped (ISO/IEC 14496-10 clause 8.4.1.1), so x264 decides better itself,
// for example in a flat area of a scrolling page. The prediction is zero if the left or the upper
// neighbor is constant or missing.
void MacroblockHistory::find_refined()
{
    size_t at = 0;
    for (uint32_t row = 0; row < rows_; ++row)
        for (uint32_t column = 0; column < columns_; ++column, ++at) {
            const bool skippable =
                row == 0 || column == 0 || refined_[at - 1] || refined_[at - columns_];
            refined_[at] =
                skippable && refinements_[at] >= refinements_until_told ? X264_MBINFO_CONSTANT : 0;
        }
}

void MacroblockHistory::encoded(bool key)
{
    if (key)
        std::ranges::fill(refinements_, uint8_t{0});
    for (uint8_t& refinements : refinements_)
        refinements += refinements < refinements_until_told;
}

} // namespace zu3host
