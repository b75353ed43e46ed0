// The memory of the portal's stream, and the pictures made of it.
#include "capture/portal/screen_canvas.h"
#include "capture/portal/stream_memory.h"

#include <climits>
#include <common/descriptor.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace zu3host {
namespace {

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

} // namespace
} // namespace zu3host
