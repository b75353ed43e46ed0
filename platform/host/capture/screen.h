#pragma once

#include "capture/picture_source.h"

#include <common/screen_part.h>
#include <memory>

namespace zu3host {

/**
 * The screen that zu3_host_screen() opened, otherwise the source that ZU3_DISPLAY names, by default
 * the session's. Its images are `part` of the screen. Null, with a log line, if it cannot be opened
 * or has no such part.
 */
std::unique_ptr<PictureSource> open_picture_source(const common::ScreenPart& part);

} // namespace zu3host
