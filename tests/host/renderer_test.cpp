// Watermarks: pixels drawn, against a composition in RGB, pixels left alone, refusals.
#include "srglworker/SrGlWorker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <sys/mman.h>
#include <unistd.h>
#include <valarray>
#include <vector>

using namespace android;
using vexa_screenrecord::SrGlWorker;

namespace {

using Bytes = std::vector<uint8_t>;

class Memory final : public IMemory {
public:
    explicit Memory(Bytes bytes) : bytes_(std::move(bytes)) {}
    void* pointer() const override { return const_cast<uint8_t*>(bytes_.data()); }
    size_t size() const override { return bytes_.size(); }

private:
    Bytes bytes_;
};

using Rgb = std::valarray<double>;

constexpr size_t width = 64, height = 48;
// of that many pixels
using Field = std::vector<Rgb>;

/** Random colors, the same in each square of four, so that a chroma sample has one color. */
Field random_field()
{
    std::mt19937 random(1);
    Field colours(width * height, Rgb(3));
    for (size_t i = 0; i < colours.size(); ++i) {
        const size_t first = i % width / 2 * 2 + i / width / 2 * 2 * width;
        for (double& part : colours[i])
            part = random() % 256;
        colours[i] = colours[first];
    }
    return colours;
}

/** An NV12 picture of a field, whose planes have a guard before and behind them. */
struct Picture {
    static constexpr size_t guard = 64;

    Picture(size_t line, const Field& colours)
        : pitch(line), bytes(guard * 3 + line * height * 3 / 2, 7)
    {
        for (size_t i = 0; i < colours.size(); ++i) {
            const size_t x = i % width, y = i / width;
            put(guard + y * pitch + x, 16, {66, 129, 25}, colours[i]);
            if (x % 2 == 0 && y % 2 == 0) {
                const Rgb sum =
                    colours[i] + colours[i + 1] + colours[i + width] + colours[i + width + 1];
                put(chroma() + y / 2 * pitch + x, 128, {-38, -74, 112}, sum / 4.0);
                put(chroma() + y / 2 * pitch + x + 1, 128, {112, -94, -18}, sum / 4.0);
            }
        }
    }
    size_t chroma() const { return 2 * guard + pitch * height; }
    void put(size_t place, double offset, const Rgb& weights, const Rgb& colour)
    {
        bytes[place] = static_cast<uint8_t>(std::lround(offset + (weights * colour).sum() / 256));
    }

    qrl_native_buffer_t describe()
    {
        qrl_native_buffer_t buffer{};
        buffer.version = 0x201;
        buffer.flags = 2;
        buffer.format = 0x23;
        buffer.width = width;
        buffer.height = height;
        buffer.pitch = static_cast<uint32_t>(pitch);
        buffer.addr = bytes.data();
        buffer.fd[0] = buffer.fd[1] = -1;
        buffer.offset[0] = guard;
        buffer.offset[1] = static_cast<uint32_t>(chroma());
        return buffer;
    }

    size_t pitch;
    Bytes bytes;
};

/** A logo of random pixels, a third of them each transparent, opaque and in between. */
sp<WatermarkParams> logo(int x, int y, uint32_t columns, uint32_t lines, uint32_t opacity = 255,
                         uint32_t padding = 0, uint32_t offset = 0)
{
    const uint32_t stride = columns * 4 + padding;
    Bytes pixels(offset + stride * lines, 99);
    std::mt19937 random(2);
    for (uint32_t i = 0; i < columns * lines; ++i) {
        uint8_t* const at = pixels.data() + offset + i / columns * stride + i % columns * 4;
        std::generate_n(at, 4, [&] { return static_cast<uint8_t>(random()); });
        at[3] = i % 3 == 0 ? 0 : i % 3 == 1 ? 255 : at[3];
    }
    const sp<WatermarkParams> params = new WatermarkParams;
    params->spMemory = sp<IMemory>(new Memory(pixels));
    params->s32X = x;
    params->s32Y = y;
    params->u32Width = columns;
    params->u32Height = lines;
    params->u32Stride = padding == 0 ? 0 : stride;
    params->u32Offset = offset;
    params->u32Opacity = opacity;
    return params;
}

/** The same by the book, in RGB; marks the pixels of the logo. */
void compose(const WatermarkParams& params, Field& colours, Field& marks)
{
    const uint32_t stride = params.u32Stride ? params.u32Stride : params.u32Width * 4;
    for (uint32_t i = 0; i < params.u32Width * params.u32Height; ++i) {
        const uint32_t column = i % params.u32Width, row = i / params.u32Width;
        const int64_t x = int64_t{params.s32X} + column, y = int64_t{params.s32Y} + row;
        if (x < 0 || y < 0 || x >= int64_t{width} || y >= int64_t{height})
            continue;
        const auto* at = static_cast<const uint8_t*>(params.spMemory->pointer()) +
                         params.u32Offset + row * stride + column * 4;
        const double alpha = at[3] / 255.0 * std::min(params.u32Opacity, 255u) / 255.0;
        Rgb& colour = colours[static_cast<size_t>(y) * width + static_cast<size_t>(x)];
        colour += (Rgb{double(at[0]), double(at[1]), double(at[2])} - colour) * alpha;
        if (alpha > 0)
            marks[static_cast<size_t>(&colour - colours.data())] = Rgb{255, 0, 0};
    }
}

int render(const sp<SrGlWorker>& worker, Picture& picture)
{
    const auto buffer = SrGlWorker::VideoBuffer::newBuffer(picture.describe());
    return buffer ? worker->render(buffer) : -100;
}

// Catches a logo that is off its place, color, opacity or edge, and a pixel changed outside of it.
TEST(Renderer, DrawsAsAComposerInRgbWould)
{
    const std::pair<const char*, sp<WatermarkParams>> cases[] = {
        {"even place", logo(10, 8, 20, 12)},
        {"odd column", logo(11, 8, 20, 12)},
        {"odd line, odd size", logo(10, 9, 21, 13)},
        {"both odd", logo(13, 5, 7, 9)},
        {"one pixel", logo(31, 17, 1, 1)},
        {"half opacity", logo(7, 8, 20, 12, 128)},
        {"hardly visible", logo(7, 8, 20, 12, 1)},
        {"opacity above its range", logo(7, 8, 20, 12, 1000)},
        {"padded lines behind an offset", logo(6, 7, 20, 12, 255, 12, 40)},
        {"over the left edge", logo(-5, 8, 20, 12)},
        {"over the top edge", logo(8, -7, 20, 12)},
        {"over the right edge", logo(51, 8, 20, 12)},
        {"over the bottom edge", logo(8, 41, 20, 12)},
        {"over all edges", logo(-3, -3, 90, 70)},
        {"beside the picture", logo(64, 0, 20, 12)},
        {"far away", logo(INT32_MIN, INT32_MAX, 20, 12)},
    };
    const Field behind = random_field(), black(behind.size(), Rgb(3));
    for (const auto& [what, params] : cases) {
        SCOPED_TRACE(what);
        const auto worker = SrGlWorker::newWorker();
        Field wanted = behind, marks = black;
        compose(*params, wanted, marks);
        Picture drawn(80, behind);
        ASSERT_EQ(worker->setWatermark(params), 0);
        ASSERT_EQ(worker->prepare(), 0);
        ASSERT_EQ(render(worker, drawn), 0);
        const Picture composed(80, wanted), marked(80, marks), unmarked(80, black);
        for (size_t i = 0; i < drawn.bytes.size(); ++i) {
            // One level: the background was rounded when it became NV12. None beside the logo.
            const int allowed = marked.bytes[i] != unmarked.bytes[i];
            ASSERT_NEAR(drawn.bytes[i], composed.bytes[i], allowed) << "byte " << i;
        }
    }
}

// Catches a read beyond the memory, a refusal that removes the old logo, and a logo that stays.
TEST(Renderer, ShowsTheLastLogoThatWasPossible)
{
    const Picture blank(64, random_field());
    const auto worker = SrGlWorker::newWorker();
    const auto good = logo(4, 4, 20, 12);
    const auto shown = [&] {
        Picture picture = blank;
        EXPECT_EQ(render(worker, picture), 0);
        return picture.bytes;
    };
    const auto set = [&](void (*change)(WatermarkParams&)) {
        const sp<WatermarkParams> params = new WatermarkParams(*good);
        change(*params);
        return worker->setWatermark(params);
    };
    EXPECT_EQ(shown(), blank.bytes) << "never set";
    EXPECT_EQ(worker->setWatermark(good), 0);
    const Bytes with_logo = shown();
    void (*const refused[])(WatermarkParams&) = {
        [](WatermarkParams& p) { p.u32BytesPerPixel = 3; },
        [](WatermarkParams& p) { p.u32Stride = 79; },
        [](WatermarkParams& p) { p.u32Offset = 1; },
        [](WatermarkParams& p) { p.u32Height = 13; },
        [](WatermarkParams& p) { p.u32Width = 0x40000001; },
        [](WatermarkParams& p) { p.u32Stride = 0x80000000, p.u32Height = 0x80000000; },
        [](WatermarkParams& p) { p.u32Offset = 0xFFFFFFFF; },
    };
    for (const auto& change : refused)
        EXPECT_NE(set(change), 0) << &change - refused;
    EXPECT_NE(worker->setWatermark(nullptr), 0);
    EXPECT_EQ(shown(), with_logo);
    void (*const removals[])(WatermarkParams&) = {
        [](WatermarkParams& p) { p.spMemory.clear(); }, [](WatermarkParams& p) { p.u32Width = 0; },
        [](WatermarkParams& p) { p.u32Height = 0; }, [](WatermarkParams& p) { p.u32Opacity = 0; }};
    for (const auto& change : removals) {
        EXPECT_EQ(worker->setWatermark(good), 0);
        EXPECT_EQ(set(change), 0);
        EXPECT_EQ(shown(), blank.bytes) << &change - removals;
    }
    EXPECT_EQ(worker->setWatermark(good), 0);
    EXPECT_EQ(worker->reset(), 0);
    EXPECT_EQ(shown(), blank.bytes);
}

// Catches a described picture that reaches beyond its memory.
TEST(Renderer, RefusesPicturesThatAreNotAsDescribed)
{
    Picture picture(64, random_field());
    const int fd = memfd_create("picture", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(2 * Picture::guard + 64 * 72)), 0);
    const auto accepts = [&](void (*change)(qrl_native_buffer_t&)) {
        qrl_native_buffer_t buffer = picture.describe();
        buffer.fd[0] = buffer.fd[1] = fd;
        change(buffer);
        return bool(SrGlWorker::VideoBuffer::newBuffer(buffer));
    };
    using B = qrl_native_buffer_t;
    EXPECT_TRUE(accepts([](B&) {})) << "ends with its memory";
    void (*const spoil[])(B&) = {
        [](B& b) { b.offset[1] += 1; },
        [](B& b) { b.offset[0] = 0xFFFFFFFF; },
        [](B& b) { b.height = 0x80000000; },
        [](B& b) { b.width = b.height = b.pitch = 0xFFFFFFFF; },
        [](B& b) { b.pitch = 62; },
        [](B& b) { b.version = 0x200; },
        [](B& b) { b.format = 0x15; },
        [](B& b) { b.addr = nullptr; },
        [](B& b) { b.width = 0; },
    };
    for (const auto& change : spoil)
        EXPECT_FALSE(accepts(change)) << &change - spoil;
    close(fd);
    EXPECT_FALSE(accepts([](B&) {})) << "a descriptor that is closed";
}

} // namespace
