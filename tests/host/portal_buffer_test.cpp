// Buffers as the portal's stream may describe them.
#include "capture/portal/stream_frame.h"

#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/raw.h>

namespace zu3host {
namespace {

/** A buffer as a compositor describes it, each piece of metadata in memory of exactly its size. */
class ToldBuffer {
public:
    ToldBuffer()
    {
        data_.chunk = &chunk;
        data_.type = SPA_DATA_MemFd;
    }
    void add(uint32_t type, std::vector<uint8_t> bytes)
    {
        metas_.emplace_back(type, std::move(bytes));
    }
    template <typename T> void add(uint32_t type, const T& value)
    {
        const auto* const bytes = reinterpret_cast<const uint8_t*>(&value);
        add(type, std::vector<uint8_t>(bytes, bytes + sizeof value));
    }
    const spa_buffer& get()
    {
        list_.clear();
        for (auto& [type, bytes] : metas_)
            list_.push_back({type, static_cast<uint32_t>(bytes.size()), bytes.data()});
        buffer_ = {static_cast<uint32_t>(list_.size()), 1, list_.data(), &data_};
        return buffer_;
    }

    spa_chunk chunk{};

private:
    std::vector<std::pair<uint32_t, std::vector<uint8_t>>> metas_;
    std::vector<spa_meta> list_;
    spa_data data_{};
    spa_buffer buffer_{};
};

constexpr StreamFormat small_format{PixelOrder::blue_first, {4, 3}};

spa_meta_region region(int32_t x, int32_t y, uint32_t width, uint32_t height)
{
    return {{{x, y}, {width, height}}};
}

TEST(PortalBuffer, PictureLiesWithinItsMemory)
{
    // Catches a picture that is read beyond the memory that its process shares.
    struct Case {
        const char* what;
        spa_chunk chunk; // offset, size, stride, flags
        uint64_t memory;
        bool good;
    };
    const Case cases[] = {
        {"exact", {0, 48, 16, 0}, 48, true},
        {"no stride means lines without a gap", {0, 48, 0, 0}, 48, true},
        {"wider lines, the last one short", {0, 56, 20, 0}, 56, true},
        {"behind an offset", {16, 48, 16, 0}, 64, true},
        {"an offset beyond the memory counts from its start", {64 + 16, 48, 16, 0}, 64, true},
        {"memory too short by one", {0, 48, 16, 0}, 47, false},
        {"chunk too short by one", {0, 47, 16, 0}, 48, false},
        {"offset too large by one", {17, 48, 16, 0}, 64, false},
        {"lines shorter than the picture", {0, 48, 15, 0}, 48, false},
        {"bottom up", {0, 48, -16, 0}, 48, false},
        {"least stride", {0, UINT32_MAX, INT32_MIN, 0}, 48, false},
        {"greatest stride", {0, UINT32_MAX, INT32_MAX, 0}, UINT32_MAX, false},
        {"greatest offset", {UINT32_MAX, 48, 16, 0}, UINT32_MAX, true},
        {"only the pointer moved", {0, 0, 16, 0}, 48, false},
        {"corrupted", {0, 48, 16, SPA_CHUNK_FLAG_CORRUPTED}, 48, false},
        {"no memory", {0, 48, 16, 0}, 0, false},
    };
    for (const Case& each : cases) {
        ToldBuffer buffer;
        buffer.chunk = each.chunk;
        const auto layout = frame_layout(buffer.get(), small_format, each.memory);
        EXPECT_EQ(layout.has_value(), each.good) << each.what;
        if (!layout)
            continue;
        EXPECT_LE(layout->offset + uint64_t{layout->stride} * 2 + 16, each.memory) << each.what;
    }
    ToldBuffer buffer;
    buffer.chunk = {0, UINT32_MAX, 0, 0};
    for (const PictureSize size : {PictureSize{0, 3}, {3, 0}, {32768, 1}, {32767, 32767}})
        EXPECT_FALSE(frame_layout(buffer.get(), {PixelOrder::blue_first, size}, UINT64_MAX));
}

TEST(PortalBuffer, CropAndTurnAreWithinThePicture)
{
    // Catches a crop that leads out of the picture, and an unknown turn.
    const std::pair<spa_meta_region, PictureRectangle> cases[] = {
        {region(1, 1, 2, 1), {1, 1, {2, 1}}},
        {region(-1, -1, 3, 3), {0, 0, {2, 2}}},
        {region(3, 2, UINT32_MAX, UINT32_MAX), {3, 2, {1, 1}}},
        {region(4, 0, 4, 4), {0, 0, {4, 3}}},
        {region(INT32_MIN, INT32_MAX, UINT32_MAX, UINT32_MAX), {0, 0, {4, 3}}},
        {region(0, 0, 0, 0), {0, 0, {4, 3}}},
    };
    for (const auto& [crop, shown] : cases) {
        ToldBuffer buffer;
        buffer.chunk = {0, 48, 16, 0};
        buffer.add(SPA_META_VideoCrop, crop);
        buffer.add(SPA_META_VideoTransform, spa_meta_videotransform{77});
        const auto layout = frame_layout(buffer.get(), small_format, 48);
        ASSERT_TRUE(layout);
        EXPECT_EQ(*layout, (FrameLayout{0, 16, shown, {}})) << crop.region.position.x;
    }
}

TEST(PortalBuffer, DamageIsWithinThePicture)
{
    // Catches damage beyond the picture, and a list that is read beyond its end.
    std::vector<uint8_t> list;
    for (const spa_meta_region& part :
         {region(1, 0, 2, 2), region(-5, -5, 4, 4), region(2, 1, UINT32_MAX, UINT32_MAX)}) {
        const auto* const bytes = reinterpret_cast<const uint8_t*>(&part);
        list.insert(list.end(), bytes, bytes + sizeof part);
    }
    list.resize(list.size() + sizeof(spa_meta_region) - 1, 0xFF); // no room for a fourth
    ToldBuffer buffer;
    buffer.add(SPA_META_VideoDamage, list);
    std::vector<PictureRectangle> parts;
    ASSERT_TRUE(append_damage(buffer.get(), small_format, parts));
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[1].x, 2u);
    EXPECT_EQ(parts[1].size, (PictureSize{2, 2}));

    ToldBuffer silent;
    EXPECT_FALSE(append_damage(silent.get(), small_format, parts));
    silent.add(SPA_META_VideoDamage, region(0, 0, 0, 0));
    EXPECT_FALSE(append_damage(silent.get(), small_format, parts));
}

/** Offset of a pointer's bitmap in its metadata, and of the pixels behind the bitmap's record. */
constexpr uint32_t bitmap_at = sizeof(spa_meta_cursor), pixels_at = sizeof(spa_meta_bitmap);

std::vector<uint8_t> cursor_metadata(const spa_meta_cursor& cursor, const spa_meta_bitmap& bitmap,
                                     size_t pixels)
{
    std::vector<uint8_t> bytes(sizeof cursor + sizeof bitmap + pixels);
    std::memcpy(bytes.data(), &cursor, sizeof cursor);
    std::memcpy(bytes.data() + sizeof cursor, &bitmap, sizeof bitmap);
    for (size_t i = 0; i < pixels; ++i)
        bytes[sizeof cursor + sizeof bitmap + i] = static_cast<uint8_t>(i + 1);
    return bytes;
}

TEST(PortalBuffer, PointerIsTakenOrLeftAsItWas)
{
    // Catches a pointer's image that is read beyond its metadata, and one that is lost or hidden.
    constexpr uint32_t bgra = SPA_VIDEO_FORMAT_BGRA, most = UINT32_MAX;
    constexpr uint32_t end = bitmap_at + pixels_at + 8;
    struct Case {
        const char* what;
        uint32_t id, at, format;
        spa_rectangle size;
        int32_t stride;
        uint32_t behind;
        size_t pixels;
        PictureSize after; // the size of the image, which is 1x1 before
    };
    const Case cases[] = {
        {"an image", 1, bitmap_at, bgra, {2, 1}, 8, pixels_at, 8, {2, 1}},
        {"no new image", 1, 0, bgra, {2, 1}, 8, pixels_at, 8, {1, 1}},
        {"an empty image", 1, bitmap_at, bgra, {0, 0}, 8, pixels_at, 0, {0, 0}},
        {"image without pixels", 1, bitmap_at, bgra, {2, 1}, 8, 0, 0, {0, 0}},
        {"hidden", 0, bitmap_at, bgra, {2, 1}, 8, pixels_at, 8, {1, 1}},
        {"pixels short by one", 1, bitmap_at, bgra, {2, 1}, 8, pixels_at, 7, {1, 1}},
        {"lines too short", 1, bitmap_at, bgra, {2, 1}, 7, pixels_at, 8, {1, 1}},
        {"negative lines", 1, bitmap_at, bgra, {2, 2}, -8, pixels_at, 16, {1, 1}},
        {"pixels in front", 1, bitmap_at, bgra, {2, 1}, 8, 1, 8, {1, 1}},
        {"pixels far away", 1, bitmap_at, bgra, {2, 1}, 8, most, 8, {1, 1}},
        {"huge", 1, bitmap_at, bgra, {most, most}, INT_MAX, pixels_at, 8, {1, 1}},
        {"another format", 1, bitmap_at, SPA_VIDEO_FORMAT_I420, {2, 1}, 8, pixels_at, 8, {1, 1}},
        {"image behind the end", 1, end, bgra, {2, 1}, 8, pixels_at, 8, {1, 1}},
        {"image far away", 1, most, bgra, {2, 1}, 8, pixels_at, 8, {1, 1}},
    };
    for (const Case& each : cases) {
        Cursor cursor{
            .visible = true, .image = {.size = {1, 1}, .pixels = {9, 9, 9, 9}}, .changes = 1};
        ToldBuffer buffer;
        buffer.add(SPA_META_Cursor,
                   cursor_metadata({each.id, 0, {5, 6}, {1, 1}, each.at},
                                   {each.format, each.size, each.stride, each.behind},
                                   each.pixels));
        take_cursor(buffer.get(), cursor);
        EXPECT_EQ(cursor.visible, each.id != 0) << each.what;
        EXPECT_EQ(cursor.image.size, each.after) << each.what;
        EXPECT_EQ(cursor.image.pixels.size(), size_t{4} * each.after.width * each.after.height)
            << each.what;
        EXPECT_EQ(cursor.changes, 2u + (each.after != PictureSize{1, 1})) << each.what;
    }
}

TEST(PortalBuffer, PointerHasBlueFirst)
{
    // Catches a pointer whose red and blue are swapped, and one that points beside its hot spot.
    Cursor cursor;
    ToldBuffer buffer;
    buffer.add(SPA_META_Cursor, cursor_metadata({1, 0, {5, 6}, {1, 0}, bitmap_at},
                                                {SPA_VIDEO_FORMAT_RGBA, {1, 1}, 4, pixels_at}, 4));
    take_cursor(buffer.get(), cursor);
    EXPECT_EQ(cursor.image.pixels, (std::vector<uint8_t>{3, 2, 1, 4}));
    EXPECT_EQ(cursor.image.hot_x, 1);
}

} // namespace
} // namespace zu3host
