#pragma once

#include <optional>
#include <string>
#include <xcb/xcb.h>

namespace zu3host {

/** How the pixels of a screen lie in memory, each in 32 bits of the lowest byte first. */
enum class PixelFormat {
    /** eight bits a colour: blue in the lowest, then green and red */
    Bgrx8,
    /** ten bits a colour: blue in the lowest, then green and red */
    Xrgb10,
    /** ten bits a colour: red in the lowest, then green and blue */
    Xbgr10,
};

/**
 * The format of a screen of this server; nothing when its pixels lie otherwise, and cannot be
 * captured.
 */
std::optional<PixelFormat> pixel_format(const xcb_setup_t& server, const xcb_screen_t& screen);

/**
 * Why a screen without such a format cannot be captured and what to do, as the end of a sentence.
 */
std::string unknown_pixel_format(const xcb_setup_t& server, const xcb_screen_t& screen);

} // namespace zu3host
