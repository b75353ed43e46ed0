#include "encoder/pixel_motion.h"

#include <algorithm>
#include <cstring>

namespace zu3host {
namespace {

constexpr int block_side = 16;
// Enough to decide, and few enough for a quarter of a millisecond if none is found.
constexpr uint32_t most_samples = 120;
// Fewer macroblocks with an edge prove nothing.
constexpr uint32_t least_samples = 4;
// x264's search range with the settings for screens
constexpr int reach = 24;

} // namespace

void PixelMotion::remember(const uint8_t* luma)
{
    before_.assign(luma, luma + layout_.luma_bytes());
    remembers_ = true;
}

PixelMotion::Finding PixelMotion::compare(const uint8_t* luma)
{
    const uint32_t columns = layout_.stride / block_side, rows = layout_.lines / block_side;
    uint32_t step = std::max(columns * rows / most_samples, 1u);
    // avoids the same columns in each row
    step += columns % step == 0;
    uint32_t changed = 0, with_edges = 0, found = 0;
    for (uint32_t number = 0; number < columns * rows; number += step) {
        const Place place{static_cast<int>(number % columns) * block_side,
                          static_cast<int>(number / columns) * block_side};
        if (came_from(luma, place, {0, 0}))
            continue;
        ++changed;
        if (is_flat(luma, place))
            continue;
        ++with_edges;
        found += came_from_nearby(luma, place);
    }
    if (changed == 0)
        return Finding::nothing;
    return with_edges >= least_samples && 2 * found >= with_edges ? Finding::whole_pixels
                                                                  : Finding::other;
}

const uint8_t* PixelMotion::at(const uint8_t* luma, Place place) const
{
    return luma + static_cast<size_t>(place.y) * layout_.stride + place.x;
}

bool PixelMotion::is_flat(const uint8_t* luma, Place place) const
{
    uint8_t flat[block_side];
    std::memset(flat, *at(luma, place), block_side);
    for (int line = 0; line < block_side; ++line)
        if (std::memcmp(at(luma, {place.x, place.y + line}), flat, block_side) != 0)
            return false;
    return true;
}

bool PixelMotion::came_from(const uint8_t* luma, Place place, Place distance) const
{
    const Place from{place.x + distance.x, place.y + distance.y};
    if (from.x < 0 || from.y < 0 || from.x + block_side > static_cast<int>(layout_.stride) ||
        from.y + block_side > static_cast<int>(layout_.lines))
        return false;
    for (int line = 0; line < block_side; ++line)
        if (std::memcmp(at(luma, {place.x, place.y + line}),
                        at(before_.data(), {from.x, from.y + line}), block_side) != 0)
            return false;
    return true;
}

bool PixelMotion::came_from_nearby(const uint8_t* luma, Place place)
{
    if (came_from(luma, place, distance_))
        return true;
    for (int y = -reach; y <= reach; ++y)
        for (int x = -reach; x <= reach; ++x)
            if (came_from(luma, place, {x, y})) {
                distance_ = {x, y};
                return true;
            }
    return false;
}

} // namespace zu3host
