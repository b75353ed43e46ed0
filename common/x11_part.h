#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>
#include <xcb/xcb.h>

#include <common/screen_part.h>

namespace common {

// Every function here asks the X server and waits for its answer without limit.

/** A monitor as RandR 1.5 knows it. */
struct X11Monitor {
    std::string name;
    ScreenRegion region;
    bool primary;
};

/** The monitors of a screen; none if the server does not know them. */
std::vector<X11Monitor> find_monitors(xcb_connection_t* connection, xcb_window_t root);

/** A window as it is now. */
struct X11Window {
    xcb_window_t id;
    /** on the screen, without the border; may reach beyond the screen */
    ScreenRegion region;
    uint16_t border;
    uint8_t depth;
    /** mapped, like all windows that contain it */
    bool viewable;
};

/** Nullopt if there is no such window. */
std::optional<X11Window> find_window(xcb_connection_t* connection, xcb_window_t root,
                                     xcb_window_t id);

/** The current place of a part of a screen. */
struct LocatedPart {
    /** within the screen, unless it is a window's */
    ScreenRegion region{};
    /** the rest of the part lies outside of the screen */
    bool clipped = false;
    /** the window that is the part, or the root window */
    xcb_window_t window = XCB_NONE;
    /** for messages, such as "the monitor HDMI-1" */
    std::string name{};
    /** why it cannot be captured, as the end of a sentence; empty if it can */
    std::string problem{};
};

/** Looks for a part of the screen. */
LocatedPart locate_part(xcb_connection_t* connection, const xcb_screen_t& screen,
                        const ScreenPart& part);

} // namespace common
