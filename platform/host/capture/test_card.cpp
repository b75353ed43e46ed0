#include "capture/picture_source.h"

#include <algorithm>
#include <vector>

namespace zu3host {

namespace {

/**
 * A moving picture that needs no display, in any size. A program can read from
 * it:
 *
 *  - the picture's number, 32 bits: bit i (0 = least significant) is the block of 16x16 pixels at
 *    x = 16 * (i % 16), y = 16 * (i / 16), white (luma 235) for 1 and black (luma 16) for 0. A mean
 *    luma above 128 in the inner 8x8 pixels means 1, whatever the encoder did to the edges. The
 *    number is that of the picture's moment in the capture's schedule, so that a dropped picture
 *    leaves a gap;
 *  - colours: patches of 48x48 pixels with their top left at (0,48) red, (64,48) white, (128,48)
 *    black.
 *
 * A yellow square of 48x48 pixels moves by 4 pixels a picture along the lines 112 to 159; the rest
 * is a still gradient. A small picture cuts it off.
 */
class TestCard : public PictureSource {
public:
    std::optional<BgraImage> grab(const GrabRequest& request) override;

private:
    void draw_background(PictureSize size);
    void draw_moving(uint32_t number);
    void draw_gradient(uint32_t x, uint32_t y, uint32_t width, uint32_t height);
    void fill(uint32_t x, uint32_t y, uint32_t width, uint32_t height, uint32_t colour);

    PictureSize size_{0, 0};
    std::vector<uint32_t> pixels_;
    uint32_t square_x_ = 0;
};

constexpr uint32_t white = 0xFFFFFFFF;
constexpr uint32_t black = 0xFF000000;
constexpr uint32_t red = 0xFFFF0000;
constexpr uint32_t yellow = 0xFFFFFF00;

constexpr uint32_t block = 16;
constexpr uint32_t blocks_a_row = 16;
constexpr uint32_t number_bits = 32;
constexpr uint32_t patch = 48;
constexpr uint32_t patches_y = 48;
constexpr uint32_t square_y = 112;
constexpr uint32_t square_step = 4;

std::optional<BgraImage> TestCard::grab(const GrabRequest& request)
{
    if (request.wanted != size_)
        draw_background(request.wanted);
    draw_moving(request.number);
    return BgraImage{reinterpret_cast<const uint8_t*>(pixels_.data()), size_.width * 4, size_,
                     next_image_serial()};
}

void TestCard::draw_background(PictureSize size)
{
    pixels_.resize(size_t{size.width} * size.height);
    size_ = size;
    draw_gradient(0, 0, size.width, size.height);
    fill(0, patches_y, patch, patch, red);
    fill(64, patches_y, patch, patch, white);
    fill(128, patches_y, patch, patch, black);
}

void TestCard::draw_moving(uint32_t number)
{
    for (uint32_t bit = 0; bit < number_bits; ++bit)
        fill(bit % blocks_a_row * block, bit / blocks_a_row * block, block, block,
             number >> bit & 1 ? white : black);
    draw_gradient(square_x_, square_y, patch, patch);
    const uint32_t track = size_.width > patch ? size_.width - patch : 1;
    square_x_ = static_cast<uint32_t>(uint64_t{number} * square_step % track);
    fill(square_x_, square_y, patch, patch, yellow);
}

void TestCard::draw_gradient(uint32_t x, uint32_t y, uint32_t width, uint32_t height)
{
    const uint32_t right = std::min(x + width, size_.width);
    const uint32_t bottom = std::min(y + height, size_.height);
    for (uint32_t line = y; line < bottom; ++line) {
        const uint32_t green = 255 * line / size_.height;
        for (uint32_t column = x; column < right; ++column) {
            const uint32_t blue = 255 * column / size_.width;
            pixels_[size_t{line} * size_.width + column] = black | 64u << 16 | green << 8 | blue;
        }
    }
}

void TestCard::fill(uint32_t x, uint32_t y, uint32_t width, uint32_t height, uint32_t colour)
{
    if (x >= size_.width)
        return;
    const uint32_t columns = std::min(width, size_.width - x);
    const uint32_t bottom = std::min(y + height, size_.height);
    for (uint32_t line = y; line < bottom; ++line)
        std::fill_n(pixels_.begin() + static_cast<ptrdiff_t>(size_t{line} * size_.width + x),
                    columns, colour);
}

} // namespace

std::unique_ptr<PictureSource> open_test_card()
{
    return std::make_unique<TestCard>();
}

} // namespace zu3host
