#include "renderer/blend_plane.h"

#include <algorithm>
#include <cmath>

namespace zu3host {

BlendPlane::BlendPlane(int64_t left, int64_t top, int64_t bytes, int64_t lines)
    : left_(left), top_(top), bytes_(bytes), lines_(static_cast<size_t>(lines), Line{bytes, 0}),
      keep_(static_cast<size_t>(bytes * lines), static_cast<uint16_t>(keep_unit)),
      add_(static_cast<size_t>(bytes * lines))
{
}

void BlendPlane::set(int64_t byte, int64_t line, double alpha, double colour)
{
    if (alpha <= 0)
        return;
    const auto index = static_cast<size_t>(line * bytes_ + byte);
    keep_[index] = static_cast<uint16_t>(std::lround((1 - alpha) * keep_unit));
    add_[index] = static_cast<uint16_t>(std::lround(colour * add_unit));
    Line& drawn = lines_[static_cast<size_t>(line)];
    drawn.begin = std::min(drawn.begin, byte);
    drawn.end = std::max(drawn.end, byte + 1);
}

void BlendPlane::draw(const TargetPlane& target) const
{
    constexpr auto shift = static_cast<uint32_t>(keep_unit / add_unit);
    constexpr auto level = static_cast<uint32_t>(add_unit);
    const int64_t last = std::min(static_cast<int64_t>(lines_.size()), target.lines - top_);
    for (int64_t line = std::max<int64_t>(0, -top_); line < last; ++line) {
        const int64_t begin = std::max(lines_[static_cast<size_t>(line)].begin, -left_);
        const int64_t end = std::min(lines_[static_cast<size_t>(line)].end, target.bytes - left_);
        if (begin >= end)
            continue;
        const uint16_t* const keep = keep_.data() + line * bytes_;
        const uint16_t* const add = add_.data() + line * bytes_;
        uint8_t* const out =
            target.data + static_cast<size_t>(top_ + line) * target.pitch + (left_ + begin);
        for (int64_t byte = begin; byte < end; ++byte) {
            uint8_t& value = out[byte - begin];
            value = static_cast<uint8_t>(
                (value * uint32_t{keep[byte]} / shift + add[byte] + level / 2) / level);
        }
    }
}

} // namespace zu3host
