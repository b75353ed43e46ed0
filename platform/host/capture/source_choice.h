#pragma once

#include "capture/picture_source.h"

#include <memory>

namespace zu3host {

/**
 * The source that ZU3_DISPLAY names, X11 if it is not set. Null, with a log line, if it cannot be
 * opened.
 */
std::unique_ptr<PictureSource> open_picture_source();

} // namespace zu3host
