// Watermarks: what is drawn, against a composition in RGB; what is left alone; what is refused.
#include "srglworker/SrGlWorker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <sys/mman.h>
#include <unistd.h>
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

struct Rgb {
    double r = 0, g = 0, b = 0;
};

/** An NV12 picture whose planes have a guard before and behind them. */
struct Picture {
    static constexpr int guard = 64;

    Picture(int w, int h, int line)
        : width(w), height(h), pitch(line), bytes(guard * 3 + line * h * 3 / 2, 7), written(bytes.size())
    {
        std::mt19937 random(1);
        // Blocks of one colour: what is behind a chroma sample has one colour.
        for (int y = 0; y < height / 2; ++y) {
            for (int x = 0; x < width / 2; ++x) {
                const Rgb colour{double(random() % 256), double(random() % 256), double(random() % 256)};
                for (int i = 0; i < 4; ++i)
                    put_luma(2 * x + i % 2, 2 * y + i / 2, colour);
                put_chroma(x, y, colour);
                background.push_back(colour);
            }
        }
    }
    size_t luma_place(int x, int y) const { return static_cast<size_t>(guard + y * pitch + x); }
    size_t chroma_place(int x, int y, int which) const
    {
        return static_cast<size_t>(2 * guard + pitch * height + y * pitch + 2 * x + which);
    }
    uint8_t luma(int x, int y) const { return bytes[luma_place(x, y)]; }
    uint8_t chroma(int x, int y, int which) const { return bytes[chroma_place(x, y, which)]; }
    void put(size_t place, double value)
    {
        bytes[place] = static_cast<uint8_t>(std::lround(value));
        written[place] = true;
    }
    void put_luma(int x, int y, Rgb c)
    {
        put(luma_place(x, y), 16 + (66 * c.r + 129 * c.g + 25 * c.b) / 256);
    }
    void put_chroma(int x, int y, Rgb c)
    {
        put(chroma_place(x, y, 0), 128 + (112 * c.b - 74 * c.g - 38 * c.r) / 256);
        put(chroma_place(x, y, 1), 128 + (112 * c.r - 94 * c.g - 18 * c.b) / 256);
    }
    Rgb behind(int x, int y) const { return background[static_cast<size_t>(y / 2 * (width / 2) + x / 2)]; }

    qrl_native_buffer_t describe()
    {
        qrl_native_buffer_t buffer{};
        buffer.version = 0x201;
        buffer.flags = 2;
        buffer.format = 0x23;
        buffer.width = static_cast<uint32_t>(width);
        buffer.height = static_cast<uint32_t>(height);
        buffer.pitch = static_cast<uint32_t>(pitch);
        buffer.addr = bytes.data();
        buffer.fd[0] = buffer.fd[1] = -1;
        buffer.offset[0] = guard;
        buffer.offset[1] = static_cast<uint32_t>(2 * guard + pitch * height);
        return buffer;
    }

    int width, height, pitch;
    Bytes bytes;
    std::vector<bool> written;
    std::vector<Rgb> background;
};

/** A logo of random pixels, a third of them each transparent, opaque and in between. */
sp<WatermarkParams> logo(int x, int y, uint32_t width, uint32_t height, uint32_t opacity = 255,
                         uint32_t padding = 0, uint32_t offset = 0)
{
    Bytes pixels(offset + (width * 4 + padding) * height, 99);
    std::mt19937 random(2);
    for (uint32_t row = 0; row < height; ++row) {
        for (uint32_t i = 0; i < width; ++i) {
            uint8_t* const at = pixels.data() + offset + row * (width * 4 + padding) + i * 4;
            const uint32_t kind = random() % 3;
            for (int byte = 0; byte < 4; ++byte)
                at[byte] = static_cast<uint8_t>(random());
            at[3] = kind == 0 ? 0 : kind == 1 ? 255 : at[3];
        }
    }
    const sp<WatermarkParams> params = new WatermarkParams;
    params->spMemory = sp<IMemory>(new Memory(pixels));
    params->s32X = x;
    params->s32Y = y;
    params->u32Width = width;
    params->u32Height = height;
    params->u32Stride = padding == 0 ? 0 : width * 4 + padding;
    params->u32Offset = offset;
    params->u32Opacity = opacity;
    return params;
}

/** The same by the book: composed in RGB, then converted; chroma from the mean of its four pixels. */
void compose(Picture& picture, const WatermarkParams& params)
{
    const uint32_t stride = params.u32Stride ? params.u32Stride : params.u32Width * 4;
    const auto composed = [&](int x, int y, bool& touched) {
        const int64_t column = int64_t{x} - params.s32X, row = int64_t{y} - params.s32Y;
        const Rgb behind = picture.behind(x, y);
        if (column < 0 || row < 0 || column >= params.u32Width || row >= params.u32Height)
            return behind;
        const auto* at = static_cast<const uint8_t*>(params.spMemory->pointer()) + params.u32Offset +
                         row * stride + column * 4;
        const double alpha = at[3] / 255.0 * std::min(params.u32Opacity, 255u) / 255.0;
        touched = touched || alpha > 0;
        return Rgb{behind.r + (at[0] - behind.r) * alpha, behind.g + (at[1] - behind.g) * alpha,
                   behind.b + (at[2] - behind.b) * alpha};
    };
    for (int y = 0; y < picture.height; y += 2) {
        for (int x = 0; x < picture.width; x += 2) {
            Rgb sum;
            bool any = false;
            for (int i = 0; i < 4; ++i) {
                bool touched = false;
                const Rgb colour = composed(x + i % 2, y + i / 2, touched);
                sum = {sum.r + colour.r / 4, sum.g + colour.g / 4, sum.b + colour.b / 4};
                if (touched)
                    picture.put_luma(x + i % 2, y + i / 2, colour);
                any = any || touched;
            }
            if (any)
                picture.put_chroma(x / 2, y / 2, sum);
        }
    }
}

int render(const sp<SrGlWorker>& worker, Picture& picture)
{
    const auto buffer = SrGlWorker::VideoBuffer::newBuffer(picture.describe());
    return buffer ? worker->render(buffer) : -100;
}

TEST(Renderer, DrawsAsAComposerInRgbWould)
{
    struct Case {
        const char* what;
        sp<WatermarkParams> params;
    };
    const Case cases[] = {
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
    for (const Case& c : cases) {
        const auto worker = SrGlWorker::newWorker();
        Picture drawn(64, 48, 80), wanted(64, 48, 80);
        ASSERT_EQ(worker->setWatermark(c.params), 0) << c.what;
        ASSERT_EQ(worker->prepare(), 0);
        ASSERT_EQ(render(worker, drawn), 0) << c.what;
        std::fill(wanted.written.begin(), wanted.written.end(), false);
        compose(wanted, *c.params);
        for (size_t i = 0; i < drawn.bytes.size(); ++i) {
            // One level: what is behind was rounded when it became NV12. Where no logo is, none.
            const int allowed = wanted.written[i] ? 1 : 0;
            ASSERT_NEAR(drawn.bytes[i], wanted.bytes[i], allowed) << c.what << ", byte " << i;
        }
    }
}

// Catches memory that is read beyond its end, a refusal that takes the old logo away, and one that stays.
TEST(Renderer, ShowsTheLastLogoThatWasPossible)
{
    const Picture blank(64, 48, 64);
    const auto worker = SrGlWorker::newWorker();
    const auto good = logo(4, 4, 20, 12);
    const auto shown = [&] {
        Picture picture(64, 48, 64);
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

TEST(Renderer, RefusesPicturesThatAreNotAsDescribed)
{
    Picture picture(64, 48, 64);
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
        [](B& b) { b.offset[1] += 1; },      [](B& b) { b.offset[0] = 0xFFFFFFFF; },
        [](B& b) { b.height = 0x80000000; }, [](B& b) { b.width = b.height = b.pitch = 0xFFFFFFFF; },
        [](B& b) { b.pitch = 62; },          [](B& b) { b.version = 0x200; },
        [](B& b) { b.format = 0x15; },       [](B& b) { b.addr = nullptr; },
        [](B& b) { b.width = 0; },
    };
    for (const auto& change : spoil)
        EXPECT_FALSE(accepts(change)) << &change - spoil;
    close(fd);
    EXPECT_FALSE(accepts([](B&) {})) << "a descriptor that is closed";
}

} // namespace
