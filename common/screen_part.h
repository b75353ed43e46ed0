#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <common/picture_size.h>

namespace common {

/** In pixels of the screen; the corner may lie outside of it, to the left and above too. */
struct ScreenRegion {
    int32_t x;
    int32_t y;
    PictureSize size;
    bool operator==(const ScreenRegion&) const = default;
};

/**
 * The part of a screen that is captured: a region of the whole screen or of the monitor, a monitor,
 * or a window. A window excludes the others.
 */
struct ScreenPart {
    /** stands for the window that has the keyboard's focus at the start */
    static constexpr uint32_t active_window = 0;
    /** stands for the primary monitor */
    static constexpr std::string_view primary_monitor = "primary";

    std::optional<ScreenRegion> region{};
    /** as the system names it; empty = not set */
    std::string monitor{};
    /** an X11 window, or active_window */
    std::optional<uint32_t> window{};
    /** recordings show the pointer */
    bool pointer = true;

    bool is_whole() const { return !region && monitor.empty() && !window; }
    bool operator==(const ScreenPart&) const = default;
};

/** "WxH+X+Y", decimal, X and Y with an optional minus sign after the plus; no side is 0. */
std::optional<ScreenRegion> parse_region(std::string_view text);

/** "active", or a window's number, decimal or hexadecimal after "0x"; not 0. */
std::optional<uint32_t> parse_window(std::string_view text);

/**
 * The part that ZU3_REGION, ZU3_MONITOR or ZU3_WINDOW names, and whether ZU3_POINTER leaves out the
 * pointer. Nullopt, and `problem` as a sentence without its full stop, for a value that cannot be
 * read, and if a window and another part are named. Does not read the environment of a process with
 * privileges.
 */
std::optional<ScreenPart> screen_part_of_environment(std::string& problem);

/** A region as parse_region() reads it. */
std::string region_text(const ScreenRegion& region);

/** The common part of two regions; nullopt if there is none. */
std::optional<ScreenRegion> overlap(const ScreenRegion& a, const ScreenRegion& b);

} // namespace common
