#include "capture/portal/stream_frame.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <libyuv/convert_argb.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/raw.h>

namespace zu3host {

namespace {

/** A copy of memory that another process writes to; reads it once. */
template <typename T> T snapshot(const void* shared)
{
    T copy;
    std::memcpy(&copy, shared, sizeof copy);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return copy;
}

/** Metadata of that type with room for a T; null otherwise. */
template <typename T> const spa_meta* find_meta(const spa_buffer& buffer, uint32_t type)
{
    for (uint32_t i = 0; i < buffer.n_metas; ++i)
        if (buffer.metas[i].type == type)
            return buffer.metas[i].data && buffer.metas[i].size >= sizeof(T) ? &buffer.metas[i]
                                                                             : nullptr;
    return nullptr;
}

/** The part of a region that lies within the picture; empty if none does. */
PictureRectangle within(const spa_region& region, PictureSize size)
{
    const auto clip = [](int64_t from, uint32_t length, uint32_t limit) {
        const int64_t begin = std::clamp<int64_t>(from, 0, limit);
        const int64_t end = std::clamp<int64_t>(from + length, 0, limit);
        return std::pair(static_cast<uint32_t>(begin), static_cast<uint32_t>(end - begin));
    };
    const auto [x, width] = clip(region.position.x, region.size.width, size.width);
    const auto [y, height] = clip(region.position.y, region.size.height, size.height);
    return {x, y, {width, height}};
}

bool is_empty(const PictureRectangle& part)
{
    return part.size.width == 0 || part.size.height == 0;
}

PictureRectangle shown_part(const spa_buffer& buffer, PictureSize size)
{
    const PictureRectangle whole{0, 0, size};
    const spa_meta* const crop = find_meta<spa_meta_region>(buffer, SPA_META_VideoCrop);
    if (!crop)
        return whole;
    const PictureRectangle part = within(snapshot<spa_meta_region>(crop->data).region, size);
    return is_empty(part) ? whole : part;
}

Turn turn_of(const spa_buffer& buffer)
{
    const spa_meta* const meta =
        find_meta<spa_meta_videotransform>(buffer, SPA_META_VideoTransform);
    const uint32_t value = meta ? snapshot<spa_meta_videotransform>(meta->data).transform : 0;
    if (value > SPA_META_TRANSFORMATION_Flipped270)
        return {};
    return {.mirrored = value >= SPA_META_TRANSFORMATION_Flipped, .quarters = value % 4};
}

bool is_corrupted(const spa_buffer& buffer)
{
    const spa_meta* const header = find_meta<spa_meta_header>(buffer, SPA_META_Header);
    return header &&
           (snapshot<spa_meta_header>(header->data).flags & SPA_META_HEADER_FLAG_CORRUPTED);
}

/** The bytes of a bitmap's pixels within the metadata, and their layout. */
struct BitmapBytes {
    const uint8_t* pixels;
    uint32_t stride;
    PictureSize size;
    PixelOrder order;
};

std::optional<BitmapBytes> bitmap_bytes(const uint8_t* start, uint64_t room)
{
    if (room < sizeof(spa_meta_bitmap))
        return std::nullopt;
    const auto bitmap = snapshot<spa_meta_bitmap>(start);
    const PictureSize size{bitmap.size.width, bitmap.size.height};
    const auto order = pixel_order(bitmap.format);
    if (!order || size.width > greatest_cursor || size.height > greatest_cursor)
        return std::nullopt;
    const bool nothing = bitmap.offset == 0 || size.width == 0 || size.height == 0;
    if (nothing)
        return BitmapBytes{start, 0, {}, *order};
    const uint64_t line = uint64_t{size.width} * 4;
    const auto stride = static_cast<uint64_t>(std::max(bitmap.stride, 0));
    if (bitmap.offset < sizeof(spa_meta_bitmap) || stride < line ||
        bitmap.offset + stride * (size.height - 1) + line > room)
        return std::nullopt;
    return BitmapBytes{start + bitmap.offset, static_cast<uint32_t>(stride), size, *order};
}

void take_image(const BitmapBytes& bitmap, CursorImage& image)
{
    image.size = bitmap.size;
    image.pixels.resize(size_t{4} * bitmap.size.width * bitmap.size.height);
    if (image.pixels.empty())
        return;
    const auto width = static_cast<int>(bitmap.size.width);
    const auto copy = bitmap.order == PixelOrder::red_first ? libyuv::ABGRToARGB : libyuv::ARGBCopy;
    copy(bitmap.pixels, static_cast<int>(bitmap.stride), image.pixels.data(), width * 4, width,
         static_cast<int>(bitmap.size.height));
}

} // namespace

bool FrameLayout::operator==(const FrameLayout& other) const
{
    return offset == other.offset && stride == other.stride && shown.x == other.shown.x &&
           shown.y == other.shown.y && shown.size == other.shown.size && turn == other.turn;
}

std::optional<PixelOrder> pixel_order(uint32_t spa_format)
{
    switch (spa_format) {
    case SPA_VIDEO_FORMAT_BGRx:
    case SPA_VIDEO_FORMAT_BGRA:
        return PixelOrder::blue_first;
    case SPA_VIDEO_FORMAT_RGBx:
    case SPA_VIDEO_FORMAT_RGBA:
        return PixelOrder::red_first;
    default:
        return std::nullopt;
    }
}

bool is_possible_screen(PictureSize size)
{
    constexpr uint32_t longest = INT16_MAX;
    constexpr uint64_t most_pixels = 1u << 28;
    return size.width && size.height && size.width <= longest && size.height <= longest &&
           uint64_t{size.width} * size.height <= most_pixels;
}

std::optional<FrameLayout> frame_layout(const spa_buffer& buffer, const StreamFormat& format,
                                        uint64_t memory_size)
{
    if (buffer.n_datas < 1 || !buffer.datas[0].chunk || memory_size == 0 ||
        !is_possible_screen(format.size) || is_corrupted(buffer))
        return std::nullopt;
    const auto chunk = snapshot<spa_chunk>(buffer.datas[0].chunk);
    const uint64_t line = uint64_t{format.size.width} * 4;
    const uint64_t stride =
        chunk.stride == 0 ? line : static_cast<uint64_t>(std::max(chunk.stride, 0));
    if (chunk.size == 0 || (chunk.flags & SPA_CHUNK_FLAG_CORRUPTED) || stride < line)
        return std::nullopt;
    const uint64_t bytes = stride * (format.size.height - 1) + line;
    const uint64_t offset = chunk.offset % memory_size;
    if (chunk.size < bytes || bytes > memory_size || offset > memory_size - bytes)
        return std::nullopt;
    return FrameLayout{offset, static_cast<uint32_t>(stride), shown_part(buffer, format.size),
                       turn_of(buffer)};
}

bool append_damage(const spa_buffer& buffer, const StreamFormat& format,
                   std::vector<PictureRectangle>& parts)
{
    const spa_meta* const damage = find_meta<spa_meta_region>(buffer, SPA_META_VideoDamage);
    if (!damage)
        return false;
    const auto* const all = static_cast<const spa_meta_region*>(damage->data);
    const size_t room = damage->size / sizeof(spa_meta_region);
    size_t told = 0;
    for (; told < room; ++told) {
        const spa_region region = snapshot<spa_meta_region>(all + told).region;
        if (region.size.width == 0 || region.size.height == 0)
            break;
        const PictureRectangle part = within(region, format.size);
        if (!is_empty(part))
            parts.push_back(part);
    }
    // A compositor that writes no damage leaves an empty list as well.
    return told > 0;
}

void take_cursor(const spa_buffer& buffer, Cursor& cursor)
{
    const spa_meta* const meta = find_meta<spa_meta_cursor>(buffer, SPA_META_Cursor);
    if (!meta)
        return;
    const auto told = snapshot<spa_meta_cursor>(meta->data);
    const bool visible = told.id != 0;
    if (visible != cursor.visible ||
        (visible && (told.position.x != cursor.x || told.position.y != cursor.y)))
        ++cursor.changes;
    cursor.visible = visible;
    if (!visible)
        return;
    cursor.x = told.position.x;
    cursor.y = told.position.y;
    if (told.bitmap_offset < sizeof(spa_meta_cursor) || told.bitmap_offset >= meta->size)
        return;
    const auto bitmap = bitmap_bytes(static_cast<const uint8_t*>(meta->data) + told.bitmap_offset,
                                     meta->size - told.bitmap_offset);
    if (!bitmap)
        return;
    take_image(*bitmap, cursor.image);
    cursor.image.hot_x = told.hotspot.x;
    cursor.image.hot_y = told.hotspot.y;
    ++cursor.changes;
}

uint32_t cursor_metadata_bytes(uint32_t width, uint32_t height)
{
    return static_cast<uint32_t>(sizeof(spa_meta_cursor) + sizeof(spa_meta_bitmap)) +
           width * height * 4;
}

} // namespace zu3host
