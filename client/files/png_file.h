#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "machine/display.h"

namespace client {

/** A picture of four bytes per pixel: R, G, B, A, alpha not premultiplied, lines without gaps. */
struct RgbaPicture {
    Size size;
    std::vector<uint8_t> bytes;
};

/** Reads a PNG file of at most 4096x4096 pixels; throws Failure. */
RgbaPicture read_png(const std::string& path);

/** Encodes lines of B, G, R bytes without gaps as a PNG file in memory. Throws Failure. */
std::vector<uint8_t> encode_png(Size size, const std::vector<uint8_t>& bgr);

} // namespace client
