#pragma once

#include <cstdint>

namespace zu3host {

/**
 * Pictures that must not be overwritten, by virtual address. The encoder leases those that it still
 * reads in its entire inject buffer, and captured pictures that it lent out as its own input
 * buffers: the capture's buffer is given back before the encoder is told of the picture, so a
 * returned buffer alone does not say that its picture may be written again. The capture leases
 * those that it has handed out there, so that a picture held over a stop is safe from the next
 * start. Leases of one picture add up: each wants its own return. Thread-safe.
 */
void lease_picture(const uint8_t* picture);
/** Ends one lease; nothing where there is none. */
void return_picture(const uint8_t* picture);
bool picture_is_leased(const uint8_t* picture);

} // namespace zu3host
