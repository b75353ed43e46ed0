#pragma once

#include "capture/picture_source.h"

#include <memory>

namespace zu3host {

/**
 * The source that ZU3_DISPLAY names, X11 where it is not set. Null with a log line when there is
 * none.
 */
std::unique_ptr<PictureSource> open_picture_source();

} // namespace zu3host
