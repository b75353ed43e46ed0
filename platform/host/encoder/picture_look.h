#pragma once

#include "base/picture_layout.h"

#include <cstdint>

namespace zu3host {

/**
 * Whether the luma of a picture in the layout looks like a film, a photograph or a game: on a
 * screen many macroblocks have one color, there hardly any except in black bars.
 */
bool looks_like_film(const uint8_t* luma, PictureLayout layout);

} // namespace zu3host
