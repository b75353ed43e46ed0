#pragma once

#include "capture/picture_source.h"

#include <memory>

namespace zu3host {

/**
 * The screen that zu3_host_screen() opened, or else the source that ZU3_DISPLAY names, by default
 * the session's. Null, with a log line, if it cannot be opened.
 */
std::unique_ptr<PictureSource> open_picture_source();

} // namespace zu3host
