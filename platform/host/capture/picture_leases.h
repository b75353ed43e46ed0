#pragma once

#include <cstdint>

namespace zu3host {

/**
 * Pictures that the encoder still reads in its entire inject buffer. The capture's buffer is given back before the
 * encoder is told of the picture, so a returned buffer alone does not say that its picture may be overwritten;
 * capture asks here before it writes. Keyed by the picture's virtual address. Thread-safe.
 */
void lease_picture(const uint8_t* picture);
void return_picture(const uint8_t* picture);
bool picture_is_leased(const uint8_t* picture);

} // namespace zu3host
