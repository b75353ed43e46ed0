// Copies of a Wayland output: their layouts, and how they are turned upright.
#include "capture/wayland/upright_image.h"

#include <gtest/gtest.h>
#include <vector>

using namespace zu3host;

namespace {

// Catches a size or a line that overflows when it is multiplied, or reaches past its buffer.
TEST(CopyLayout, RefusesWhatCannotBe)
{
    constexpr uint32_t most = 0xFFFFFFFF;
    constexpr struct {
        CopyLayout layout;
        bool possible;
    } cases[] = {
        {{0, {1280, 720}, 5120}, true},       {{0, {1, 1}, 4}, true},
        {{0, {1280, 720}, 5184}, true},       {{0, {16384, 16384}, 65536}, true},
        {{0, {1280, 720}, 5119}, false},      {{0, {0, 720}, 5120}, false},
        {{0, {1280, 0}, 5120}, false},        {{0, {32769, 1}, 131076}, false},
        {{0, {32768, 32768}, 131072}, false}, {{0, {1, 32768}, most}, false},
        {{0, {most, most}, most}, false},     {{0, {0x40000001, 1}, 4}, false},
    };
    for (const auto& [layout, possible] : cases)
        EXPECT_EQ(layout.is_possible(), possible)
            << layout.size.width << "x" << layout.size.height << " lines of " << layout.stride;
}

/** A copy in which one part has another colour. */
struct Copy {
    static constexpr PictureSize size{37, 23};
    static constexpr uint32_t stride = size.width * 4 + 12;
    static constexpr PictureRectangle part{5, 3, {11, 7}};
    std::vector<uint8_t> pixels = std::vector<uint8_t>(size_t{stride} * size.height);

    Copy(uint8_t first, uint8_t third)
    {
        for (uint32_t y = part.y; y < part.y + part.size.height; ++y)
            for (uint32_t x = part.x; x < part.x + part.size.width; ++x) {
                pixels[size_t{stride} * y + size_t{4} * x] = first;
                pixels[size_t{stride} * y + size_t{4} * x + 2] = third;
            }
    }
};

bool is_inside(const PictureRectangle& part, uint32_t x, uint32_t y)
{
    return x >= part.x && x < part.x + part.size.width && y >= part.y &&
           y < part.y + part.size.height;
}

// Catches a part that is turned another way than the pixels, and a colour or a line that is lost.
TEST(UprightImage, TurnsPartsAsItTurnsPixels)
{
    constexpr uint8_t blue = 200, red = 100;
    for (const uint32_t format : {WL_SHM_FORMAT_XRGB8888, WL_SHM_FORMAT_ABGR8888})
        for (uint32_t transform = 0; transform < 8; ++transform)
            for (const bool upside_down : {false, true}) {
                const bool blue_first = format == WL_SHM_FORMAT_XRGB8888;
                const Copy copy(blue_first ? blue : red, blue_first ? red : blue);
                const Orientation orientation{transform, upside_down};
                UprightImage upright;
                const BgraImage image =
                    upright.of({format, Copy::size, Copy::stride}, copy.pixels.data(), orientation);
                const PictureRectangle part = upright_part(Copy::part, Copy::size, orientation);
                ASSERT_EQ(image.size, upright_size(Copy::size, orientation));
                for (uint32_t y = 0; y < image.size.height; ++y)
                    for (uint32_t x = 0; x < image.size.width; ++x) {
                        const uint8_t* pixel =
                            image.pixels + size_t{image.stride} * y + size_t{4} * x;
                        const bool inside = is_inside(part, x, y);
                        ASSERT_TRUE(pixel[0] == (inside ? blue : 0) &&
                                    pixel[2] == (inside ? red : 0))
                            << "transform " << transform << ", upside down " << upside_down
                            << ", at " << x << "," << y;
                    }
            }
}

} // namespace
