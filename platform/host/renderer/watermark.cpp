#include "renderer/watermark.h"

#include "base/host_log.h"

#include <algorithm>
#include <cmath>

namespace zu3host {

BlendPlane::BlendPlane(int64_t left, int64_t top, int64_t bytes, int64_t lines)
    : left_(left), top_(top), bytes_(bytes), lines_(static_cast<size_t>(lines), Line{bytes, 0}),
      keep_(static_cast<size_t>(bytes * lines), static_cast<uint16_t>(keep_unit)),
      add_(static_cast<size_t>(bytes * lines))
{
}

void BlendPlane::set(int64_t byte, int64_t line, double alpha, double colour)
{
    if (alpha <= 0)
        return;
    const auto index = static_cast<size_t>(line * bytes_ + byte);
    keep_[index] = static_cast<uint16_t>(std::lround((1 - alpha) * keep_unit));
    add_[index] = static_cast<uint16_t>(std::lround(colour * add_unit));
    Line& drawn = lines_[static_cast<size_t>(line)];
    drawn.begin = std::min(drawn.begin, byte);
    drawn.end = std::max(drawn.end, byte + 1);
}

void BlendPlane::draw(const TargetPlane& target) const
{
    constexpr auto shift = static_cast<uint32_t>(keep_unit / add_unit);
    constexpr auto level = static_cast<uint32_t>(add_unit);
    const int64_t last = std::min(static_cast<int64_t>(lines_.size()), target.lines - top_);
    for (int64_t line = std::max<int64_t>(0, -top_); line < last; ++line) {
        const int64_t begin = std::max(lines_[static_cast<size_t>(line)].begin, -left_);
        const int64_t end = std::min(lines_[static_cast<size_t>(line)].end, target.bytes - left_);
        if (begin >= end)
            continue;
        const uint16_t* const keep = keep_.data() + line * bytes_;
        const uint16_t* const add = add_.data() + line * bytes_;
        uint8_t* const out =
            target.data + static_cast<size_t>(top_ + line) * target.pitch + (left_ + begin);
        for (int64_t byte = begin; byte < end; ++byte) {
            uint8_t& value = out[byte - begin];
            value = static_cast<uint8_t>(
                (value * uint32_t{keep[byte]} / shift + add[byte] + level / 2) / level);
        }
    }
}

namespace {

using android::WatermarkParams;

/** A sum of pixels: their colours times their opacity, and their opacity; each of 0 to 1. */
struct Light {
    double red = 0, green = 0, blue = 0, alpha = 0;

    Light& operator+=(const Light& other)
    {
        red += other.red;
        green += other.green;
        blue += other.blue;
        alpha += other.alpha;
        return *this;
    }
};

// BT.601, limited range, in the precision that the rest of the picture is converted with.
double luma_of(const Light& light)
{
    return (66 * light.red + 129 * light.green + 25 * light.blue) * 255 / 256 + 16 * light.alpha;
}
double cb_of(const Light& light)
{
    return (112 * light.blue - 74 * light.green - 38 * light.red) * 255 / 256 + 128 * light.alpha;
}
double cr_of(const Light& light)
{
    return (112 * light.red - 94 * light.green - 18 * light.blue) * 255 / 256 + 128 * light.alpha;
}

/** The half, rounded down, of a position that may be negative. */
constexpr int64_t half(int64_t position)
{
    return position >> 1;
}

int64_t width_of(const WatermarkParams& params)
{
    return params.u32Width;
}
int64_t height_of(const WatermarkParams& params)
{
    return params.u32Height;
}

uint64_t stride_of(const WatermarkParams& params)
{
    return params.u32Stride != 0 ? params.u32Stride : uint64_t{params.u32Width} * 4;
}

Light pixel(const WatermarkParams& params, int64_t x, int64_t y)
{
    const auto* const at = static_cast<const uint8_t*>(params.spMemory->pointer()) +
                           params.u32Offset + static_cast<uint64_t>(y) * stride_of(params) +
                           static_cast<uint64_t>(x) * 4;
    const double alpha = at[3] / 255.0 * std::min(params.u32Opacity, 255u) / 255.0;
    return {at[0] / 255.0 * alpha, at[1] / 255.0 * alpha, at[2] / 255.0 * alpha, alpha};
}

/** Why it cannot be drawn, or null. */
const char* fault_of(const WatermarkParams& params)
{
    if (params.u32BytesPerPixel != 4)
        return "its pixels are not four bytes";
    if (stride_of(params) < uint64_t{params.u32Width} * 4)
        return "its lines are shorter than its width";
    // A stride of a width without one has up to 34 bits; within 32 bits no product below overflows.
    if (stride_of(params) > UINT32_MAX ||
        stride_of(params) * params.u32Height + params.u32Offset > params.spMemory->size())
        return "it is larger than its memory";
    if (!params.spMemory->pointer())
        return "its memory has no address";
    return nullptr;
}

} // namespace

bool Watermark::shows_nothing(const WatermarkParams& params)
{
    return !params.spMemory || params.u32Width == 0 || params.u32Height == 0 ||
           params.u32Opacity == 0;
}

std::shared_ptr<const Watermark> Watermark::from(const WatermarkParams& params)
{
    if (const char* const fault = fault_of(params)) {
        HOST_LOGE("A watermark of %u x %u is refused: %s.", params.u32Width, params.u32Height,
                  fault);
        return nullptr;
    }
    return std::shared_ptr<const Watermark>(new Watermark(params));
}

Watermark::Watermark(const WatermarkParams& params)
    : luma_(params.s32X, params.s32Y, width_of(params), height_of(params)),
      chroma_(half(params.s32X) * 2, half(params.s32Y),
              (half(params.s32X + width_of(params) - 1) - half(params.s32X) + 1) * 2,
              half(params.s32Y + height_of(params) - 1) - half(params.s32Y) + 1)
{
    convert_luma(params);
    convert_chroma(params);
}

void Watermark::convert_luma(const WatermarkParams& params)
{
    for (int64_t y = 0; y < height_of(params); ++y) {
        for (int64_t x = 0; x < width_of(params); ++x) {
            const Light light = pixel(params, x, y);
            luma_.set(x, y, light.alpha, luma_of(light));
        }
    }
}

// A chroma sample belongs to two by two pixels of the picture, of which the logo may cover any
// part.
void Watermark::convert_chroma(const WatermarkParams& params)
{
    const int64_t odd_x = params.s32X & 1, odd_y = params.s32Y & 1;
    const int64_t width = width_of(params), height = height_of(params);
    for (int64_t row = 0; row * 2 - odd_y < height; ++row) {
        for (int64_t column = 0; column * 2 - odd_x < width; ++column) {
            Light sum;
            for (int64_t y = std::max<int64_t>(0, row * 2 - odd_y);
                 y < std::min(height, row * 2 - odd_y + 2); ++y)
                for (int64_t x = std::max<int64_t>(0, column * 2 - odd_x);
                     x < std::min(width, column * 2 - odd_x + 2); ++x)
                    sum += pixel(params, x, y);
            chroma_.set(column * 2, row, sum.alpha / 4, cb_of(sum) / 4);
            chroma_.set(column * 2 + 1, row, sum.alpha / 4, cr_of(sum) / 4);
        }
    }
}

void Watermark::draw(const TargetPlane& luma, const TargetPlane& chroma) const
{
    luma_.draw(luma);
    chroma_.draw(chroma);
}

} // namespace zu3host
