#include "capture/part_list.h"

#include <algorithm>
#include <limits>

namespace zu3host {

namespace {

// A request to the server for another part costs about as much as fetching this many pixels.
constexpr int64_t pixels_worth_a_part = 4096;

int64_t pixels_of(const PictureRectangle& part)
{
    return int64_t{part.size.width} * part.size.height;
}

PictureRectangle around(const PictureRectangle& a, const PictureRectangle& b)
{
    const uint32_t x = std::min(a.x, b.x);
    const uint32_t y = std::min(a.y, b.y);
    const uint32_t right = std::max(a.x + a.size.width, b.x + b.size.width);
    const uint32_t bottom = std::max(a.y + a.size.height, b.y + b.size.height);
    return {x, y, {right - x, bottom - y}};
}

/** The pixels that joining two parts adds, or saves if negative. */
int64_t cost_of_joining(const PictureRectangle& a, const PictureRectangle& b)
{
    return pixels_of(around(a, b)) - pixels_of(a) - pixels_of(b);
}

/** A span within 0 to `limit` with even start and end; only an end at the limit may be odd. */
std::pair<uint32_t, uint32_t> even_span(uint32_t start, uint32_t length, uint32_t limit)
{
    const uint32_t begin = std::min(start, limit) & ~1u;
    const uint32_t end = static_cast<uint32_t>(
        std::min<uint64_t>(limit, (uint64_t{start} + length + 1) & ~uint64_t{1}));
    return {begin, end - begin};
}

} // namespace

void PartList::add(const PictureRectangle& part)
{
    if (part.x >= image_.width || part.y >= image_.height || !part.size.width || !part.size.height)
        return;
    const auto [x, width] = even_span(part.x, part.size.width, image_.width);
    const auto [y, height] = even_span(part.y, part.size.height, image_.height);
    PictureRectangle added{x, y, {width, height}};
    while (count_ > 0) {
        size_t nearest = 0;
        int64_t least = std::numeric_limits<int64_t>::max();
        for (size_t i = 0; i < count_; ++i) {
            const int64_t cost = cost_of_joining(parts_[i], added);
            if (cost < least) {
                least = cost;
                nearest = i;
            }
        }
        if (least > pixels_worth_a_part && count_ < most)
            break;
        added = around(parts_[nearest], added);
        parts_[nearest] = parts_[--count_];
    }
    parts_[count_++] = added;
}

void PartList::add_all()
{
    clear();
    add(PictureRectangle{0, 0, image_});
}

PictureRectangle PartList::bounds() const
{
    if (empty())
        return {};
    PictureRectangle all = parts_[0];
    for (const PictureRectangle& part : parts())
        all = around(all, part);
    return all;
}

} // namespace zu3host
