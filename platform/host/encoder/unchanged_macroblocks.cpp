#include "encoder/unchanged_macroblocks.h"

#include <algorithm>
#include <x264.h>

namespace zu3host {
namespace {

constexpr uint32_t macroblock = 16;

} // namespace

UnchangedMacroblocks::UnchangedMacroblocks(PictureLayout layout)
    : columns_(layout.stride / macroblock), rows_(layout.lines / macroblock),
      flags_(size_t{columns_} * rows_), others_(flags_.size())
{
}

uint8_t* UnchangedMacroblocks::find(ChangedRectangles changed)
{
    others_ = flags_.size();
    if (!changed)
        return nullptr;
    std::ranges::fill(flags_, X264_MBINFO_CONSTANT);
    for (const PictureRectangle& part : *changed)
        mark_changed(part);
    if (!changed->empty())
        leave_out_unskippable();
    others_ = static_cast<size_t>(std::ranges::count(flags_, 0));
    return flags_.data();
}

void UnchangedMacroblocks::mark_changed(const PictureRectangle& part)
{
    const auto end = [](uint32_t start, uint32_t length, uint32_t most) {
        const uint64_t past = uint64_t{start} + length;
        return length == 0 ? 0 : std::min((past + macroblock - 1) / macroblock, uint64_t{most});
    };
    const uint64_t left = part.x / macroblock, right = end(part.x, part.size.width, columns_);
    const uint64_t bottom = end(part.y, part.size.height, rows_);
    for (uint64_t row = part.y / macroblock; row < bottom && left < right; ++row)
        std::fill_n(&flags_[row * columns_ + left], right - left, uint8_t{0});
}

// x264 codes a constant macroblock without motion. If the motion predicted from its neighbors is
// not zero, it cannot be skipped (ISO/IEC 14496-10 clause 8.4.1.1), so x264 decides better itself,
// for example in a flat area of a scrolling page. The prediction is zero if the left or the upper
// neighbor is constant or missing.
void UnchangedMacroblocks::leave_out_unskippable()
{
    for (size_t row = 1; row < rows_; ++row)
        for (size_t at = row * columns_ + 1; at < (row + 1) * columns_; ++at)
            if (flags_[at - 1] == 0 && flags_[at - columns_] == 0)
                flags_[at] = 0;
}

} // namespace zu3host
