#pragma once

#include "base/picture_layout.h"

#include <cstdint>

namespace zu3host {

/**
 * Whether the luma of a picture in the layout looks like a film, a photograph or a game: screens
 * have flat areas, those hardly any. Checks a few hundred lines at most, whatever the size.
 */
bool looks_like_film(const uint8_t* luma, PictureLayout layout);

} // namespace zu3host
