#pragma once

#include "capture/picture_source.h"

#include <vector>

namespace zu3host {

/**
 * A moving picture that needs no display, in whatever size is asked for. A program can read from
 * it:
 *
 *  - the picture's number, 32 bits: bit i (0 = least significant) is the block of 16x16 pixels at
 *    x = 16 * (i % 16), y = 16 * (i / 16), white (luma 235) for 1 and black (luma 16) for 0. The mean luma of
 * a block's inner 8x8 pixels above 128 means 1, whatever the encoder did to its edges. The number
 * is that of the picture's moment in the capture's schedule, so that a dropped picture leaves a
 * gap;
 *  - colours: patches of 48x48 pixels with their top left at (0,48) red, (64,48) white, (128,48)
 *    black.
 *
 * A yellow square of 48x48 pixels moves by 4 pixels a picture along the lines 112 to 159; the rest
 * is a still gradient. What lies outside a small picture is cut off.
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

} // namespace zu3host
