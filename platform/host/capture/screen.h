#pragma once

#include "capture/picture_source.h"

#include <common/screen_part.h>
#include <memory>
#include <optional>

namespace zu3host {

/** The part of the screen that the environment names; nullopt, with a log line, if invalid. */
std::optional<common::ScreenPart> chosen_screen_part();

/**
 * The screen that zu3_host_screen() opened, otherwise the source that ZU3_DISPLAY names, by default
 * the session's. Its images are `part` of the screen. Null, with a log line, if it cannot be opened
 * or has no such part.
 */
std::unique_ptr<PictureSource> open_picture_source(const common::ScreenPart& part);

} // namespace zu3host
