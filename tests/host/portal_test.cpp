// Descriptions of buffers by the portal's stream, and the resulting pictures.
#include "capture/portal/restore_token.h"
#include "capture/portal/screen_canvas.h"
#include "capture/portal/stream_frame.h"
#include "capture/portal/stream_memory.h"

#include <climits>
#include <common/descriptor.h>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <spa/buffer/meta.h>
#include <spa/param/video/raw.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

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

common::Descriptor shared_bytes(const std::vector<uint8_t>& bytes, bool sealed)
{
    common::Descriptor fd(memfd_create("portal test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    EXPECT_EQ(write(fd.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    if (sealed)
        fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK);
    return fd;
}

TEST(PortalMemory, IsNotReadBeyondItsEnd)
{
    // Catches a read beyond the shared memory, and a compositor that shrinks it to kill its reader.
    std::vector<uint8_t> bytes(10000);
    bytes[5003] = 77;
    for (const bool sealed : {false, true}) {
        const common::Descriptor fd = shared_bytes(bytes, sealed);
        StreamMemory memory(fd.get(), 5000, 4000);
        ASSERT_TRUE(memory.usable());
        ASSERT_NE(memory.bytes(3, 10), nullptr);
        EXPECT_EQ(memory.bytes(3, 10)[0], 77);
        EXPECT_NE(memory.bytes(0, 4000), nullptr);
        EXPECT_EQ(memory.bytes(1, 4000), nullptr);
        EXPECT_EQ(memory.bytes(UINT64_MAX, 2), nullptr);
        EXPECT_EQ(memory.bytes(2, UINT64_MAX), nullptr);
        EXPECT_FALSE(StreamMemory(fd.get(), 6001, 4000).usable());
        EXPECT_FALSE(StreamMemory(fd.get(), UINT64_MAX, 2).usable());
        EXPECT_FALSE(StreamMemory(fd.get(), 0, UINT64_MAX).usable());
        EXPECT_FALSE(StreamMemory(fd.get(), 0, 0).usable());
        EXPECT_EQ(ftruncate(fd.get(), 5000) == 0, !sealed);
        EXPECT_EQ(memory.bytes(0, 10) != nullptr, sealed);
    }
    EXPECT_FALSE(StreamMemory(-1, 0, 1).usable());
    EXPECT_FALSE(StreamMemory(nullptr, 1).usable());
    EXPECT_FALSE(StreamMemory(bytes.data(), 0).usable());
    StreamMemory mapped(bytes.data(), 6000);
    EXPECT_EQ(mapped.bytes(5003, 1)[0], 77);
    EXPECT_EQ(mapped.bytes(5003, 998), nullptr);
    const common::Descriptor zeros(open("/dev/zero", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(StreamMemory(zeros.get(), 0, 1).usable());
}

uint64_t count_serial()
{
    static uint64_t last = 0;
    return ++last;
}

/** Pixels by one byte each: the blue of the picture, in rows. */
std::string blues(const BgraImage& image)
{
    std::string rows;
    for (uint32_t y = 0; y < image.size.height; ++y) {
        for (uint32_t x = 0; x < image.size.width; ++x)
            rows += static_cast<char>(image.pixels[size_t{y} * image.stride + size_t{4} * x]);
        rows += '|';
    }
    return rows;
}

/** Shared memory with a picture of these rows, its first byte of each pixel. */
std::vector<uint8_t> picture(const std::string& rows, size_t byte = 0)
{
    std::vector<uint8_t> bytes;
    for (const char c : rows) {
        if (c == '|')
            continue;
        bytes.insert(bytes.end(), {0, 0, 0, 255});
        bytes[bytes.size() - 4 + byte] = static_cast<uint8_t>(c);
    }
    return bytes;
}

TEST(PortalCanvas, PicturesAreTurnedBack)
{
    // Catches a turned screen that is recorded as it lies in memory, or turned the other way.
    const std::pair<Turn, const char*> cases[] = {
        // each one's result for "abc|def|": turned counterclockwise, after it was mirrored
        {{false, 0}, "abc|def|"},  {{false, 1}, "cf|be|ad|"}, {{false, 2}, "fed|cba|"},
        {{false, 3}, "da|eb|fc|"}, {{true, 0}, "cba|fed|"},   {{true, 1}, "ad|be|cf|"},
        {{true, 2}, "def|abc|"},   {{true, 3}, "fc|eb|da|"},
    };
    for (const auto& [turn, rows] : cases)
        for (const PixelOrder order : {PixelOrder::blue_first, PixelOrder::red_first}) {
            const bool upright = turn.quarters % 2 == 0;
            const PictureSize size = upright ? PictureSize{3, 2} : PictureSize{2, 3};
            const auto fd =
                shared_bytes(picture(rows, order == PixelOrder::red_first ? 2 : 0), true);
            StreamMemory memory(fd.get(), 0, 24);
            ScreenCanvas canvas(count_serial);
            ASSERT_TRUE(
                canvas.take(memory, {0, size.width * 4, {0, 0, size}, turn}, {order, size}, {}));
            EXPECT_EQ(blues(canvas.image()), "abc|def|") << turn.mirrored << turn.quarters;
        }
}

TEST(PortalCanvas, TakesWhatChangedAlone)
{
    // Catches a still screen that is converted again, a change that is left out, and a crop that is
    // shifted.
    const StreamFormat format{PixelOrder::blue_first, {4, 3}};
    const FrameLayout cropped{0, 16, {1, 1, {3, 2}}, {}};
    const auto before = shared_bytes(picture("abcd|efgh|ijkl|"), true);
    const auto after = shared_bytes(picture("ABCD|EFGH|IJKL|"), false);
    StreamMemory old_memory(before.get(), 0, 48), new_memory(after.get(), 0, 48);
    ScreenCanvas canvas(count_serial);
    ASSERT_TRUE(canvas.take(old_memory, cropped, format, {}));
    const BgraImage first = canvas.image();
    EXPECT_EQ(blues(first), "fgh|jkl|");
    EXPECT_EQ(first.changed.since, 0u);
    EXPECT_EQ(canvas.image().serial, first.serial);

    const PictureRectangle damage[] = {{0, 0, {3, 2}}, {3, 2, {1, 1}}, {0, 0, {4, 1}}};
    ASSERT_TRUE(canvas.take(new_memory, cropped, format, damage));
    const BgraImage second = canvas.image();
    EXPECT_EQ(blues(second), "FGh|jkL|");
    EXPECT_EQ(second.changed.since, first.serial);
    ASSERT_EQ(second.changed.parts.size(), 2u);
    EXPECT_EQ(second.changed.parts[0].size, (PictureSize{2, 1}));
    EXPECT_EQ(second.changed.parts[1].x, 2u);

    ASSERT_EQ(ftruncate(after.get(), 0), 0);
    EXPECT_FALSE(canvas.take(new_memory, cropped, format, {}));
    EXPECT_EQ(canvas.image().serial, second.serial);
    EXPECT_EQ(blues(canvas.image()), "FGh|jkL|");

    const FrameLayout wider{0, 16, {0, 1, {4, 2}}, {}};
    ASSERT_TRUE(canvas.take(old_memory, wider, format, damage));
    EXPECT_EQ(blues(canvas.image()), "efgh|ijkl|");
    EXPECT_EQ(canvas.image().changed.since, 0u);
}

TEST(PortalCanvas, PointerLeavesNoTrace)
{
    // Catches a pointer's trail, one that hides later drawing below it, and one that is drawn
    // beyond the edge.
    const StreamFormat format{PixelOrder::blue_first, {4, 3}};
    const FrameLayout whole{0, 16, {0, 0, {4, 3}}, {}};
    const auto fd = shared_bytes(picture("abcd|efgh|ijkl|"), true);
    const auto later = shared_bytes(picture("ABCD|EFGH|IJKL|"), true);
    StreamMemory memory(fd.get(), 0, 48), new_memory(later.get(), 0, 48);
    ScreenCanvas canvas(count_serial);
    Cursor cursor{.visible = true, .x = 1, .y = 1, .image = {{2, 2}, 1, 1, {}}, .changes = 1};
    for (const char c : {'1', '2', '3'})
        for (const int byte : {static_cast<int>(c), 0, 0, 255})
            cursor.image.pixels.push_back(static_cast<uint8_t>(byte));
    cursor.image.pixels.resize(16); // its last pixel is transparent
    ASSERT_TRUE(canvas.take(memory, whole, format, {}));
    const auto shown = [&](const Cursor* pointer) {
        canvas.point(pointer);
        return blues(canvas.image());
    };
    EXPECT_EQ(shown(&cursor), "12cd|3fgh|ijkl|");
    const uint64_t serial = canvas.image().serial;
    EXPECT_EQ(shown(&cursor), "12cd|3fgh|ijkl|");
    EXPECT_EQ(canvas.image().serial, serial);

    cursor.x = 4, cursor.y = 3, ++cursor.changes;
    EXPECT_EQ(shown(&cursor), "abcd|efgh|ijk1|");
    EXPECT_EQ(canvas.image().changed.since, serial);
    EXPECT_EQ(canvas.image().changed.parts.size(), 2u);

    const PictureRectangle corner[] = {{3, 1, {1, 2}}};
    ASSERT_TRUE(canvas.take(new_memory, whole, format, corner));
    EXPECT_EQ(shown(&cursor), "abcd|efgH|ijk1|");
    EXPECT_EQ(canvas.image().changed.parts.size(), 1u);
    EXPECT_EQ(shown(nullptr), "abcd|efgH|ijkL|");

    for (const auto& [x, y] : {std::pair{INT_MIN, INT_MIN}, {INT_MAX, INT_MAX}, {-1, 0}, {0, 5}}) {
        cursor.x = x, cursor.y = y, ++cursor.changes;
        cursor.image.hot_x = x < 0 ? INT_MAX : INT_MIN;
        EXPECT_EQ(shown(&cursor), "abcd|efgH|ijkL|") << x;
    }
    cursor.x = 1, cursor.y = 1, cursor.image.hot_x = 1, ++cursor.changes;
    EXPECT_EQ(shown(&cursor), "12cd|3fgH|ijkL|");
    ASSERT_TRUE(canvas.take(new_memory, whole, format, {}));
    EXPECT_EQ(shown(&cursor), "12CD|3FGH|IJKL|");
    cursor.visible = false;
    EXPECT_EQ(shown(&cursor), "ABCD|EFGH|IJKL|");
}

class Token : public testing::Test {
protected:
    void SetUp() override
    {
        std::string name = std::filesystem::temp_directory_path() / "portal-test.XXXXXX";
        folder_ = mkdtemp(name.data());
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }
    std::filesystem::path folder_;
};

TEST_F(Token, IsKeptForItsOwner)
{
    // Catches a token that others can read, one that is lost, and files that are left behind.
    const auto file = folder_ / "state/screenrecord/portal-token";
    const RestoreToken token(file);
    EXPECT_EQ(token.read(), "");
    for (const char* text : {"3f1c-first", "second"}) {
        EXPECT_EQ(token.write(text), 0);
        EXPECT_EQ(token.read(), text);
    }
    struct stat found {};
    ASSERT_EQ(stat(file.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777, 0600u);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(file.parent_path()), {}), 1);
    EXPECT_EQ(token.write(""), 0);
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_EQ(token.write(""), 0);
}

TEST_F(Token, OthersAreNotTrusted)
{
    // Catches a token that goes to the portal although the portal made none like it, or through a
    // link.
    const auto file = folder_ / "token";
    for (const std::string& text :
         {std::string("two\nlines\n"), std::string("\x1b[2J"), std::string(5000, 'a'),
          std::string("a\0b", 3), std::string("\n")}) {
        std::ofstream(file) << text;
        EXPECT_EQ(RestoreToken(file).read(), "") << text.size();
    }
    std::ofstream(folder_ / "real") << "token";
    EXPECT_EQ(RestoreToken(folder_ / "real").read(), "token");
    std::filesystem::create_symlink("real", folder_ / "link");
    EXPECT_EQ(RestoreToken(folder_ / "link").read(), "");
    EXPECT_EQ(mkfifo((folder_ / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(RestoreToken(folder_ / "pipe").read(), "");
    EXPECT_NE(RestoreToken("/dev/null/token").write("token"), 0);
    EXPECT_EQ(RestoreToken("").write("token"), 0);
}

} // namespace
} // namespace zu3host
