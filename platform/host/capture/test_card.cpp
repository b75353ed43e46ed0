#include "capture/test_card.h"

#include <algorithm>

namespace zu3host {

namespace {

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

} // namespace

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

} // namespace zu3host
