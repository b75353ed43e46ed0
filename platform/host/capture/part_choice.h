#pragma once

#include <common/screen_part.h>
#include <optional>

namespace zu3host {

/** The part of the screen that the environment names; nullopt, with a log line, if invalid. */
std::optional<common::ScreenPart> chosen_screen_part();

} // namespace zu3host
