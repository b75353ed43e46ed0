#pragma once

#include <common/screen_part.h>
#include <optional>

namespace zu3host {

/**
 * The part of the screen that ZU3_REGION, ZU3_MONITOR or ZU3_WINDOW names, and whether ZU3_POINTER
 * leaves out the pointer. Nullopt, with a log line, for a value that cannot be read, and if more
 * than one part is named.
 */
std::optional<common::ScreenPart> chosen_screen_part();

} // namespace zu3host
