#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "machine/host.h"
#include <common/picture_size.h>
#include <common/screen_part.h>
#include <common/x11_part.h>

namespace client {

using Size = common::PictureSize;

/** Why a picture of this size cannot be captured, as the end of a sentence; empty if it can. */
std::string size_problem(Size size);

/** The size to capture by default: the display's, made even and scaled down to the greatest. */
Size size_for_display(Size display);

/** Properties of a display. */
struct DisplayInfo {
    std::string name;
    Size size;
    /** 0 = unknown */
    double refresh_hz = 0;
    /** pictures can be fetched through shared memory */
    bool shared_memory = false;
    std::vector<common::X11Monitor> monitors = {};
    /** why it cannot be captured, as the end of a sentence; empty if it can */
    std::string problem = {};
};

/**
 * Asks the X server `name` ("" = DISPLAY), and which monitors it has; nullopt if it cannot be
 * reached or does not answer within 3 s.
 */
std::optional<DisplayInfo> probe_display(const std::string& name);

/**
 * The display to capture: what ZU3_DISPLAY selects, otherwise the screen of the Wayland session,
 * otherwise DISPLAY; of an X11 display, the part that the environment names. Opens the screen of a
 * Wayland session for the next capture. Throws Failure, also for a display with an unknown pixel
 * format.
 */
DisplayInfo display_to_capture();

/**
 * The X11 display to capture: DISPLAY, or the part of it that the environment names. Stores the
 * located part in the environment: a region clipped to the screen (with a message), a window by
 * its number. Throws Failure like display_to_capture().
 */
DisplayInfo x11_display_to_capture();

/** Sets the environment variables from which the platform reads the part, and unsets the others. */
void set_screen_part(const common::ScreenPart& part);

/**
 * The size to capture: `asked`, or by default the display's size, made even. Prints a message if a
 * display of odd size loses its last column or row.
 */
Size size_to_capture(const DisplayInfo& display, const std::optional<Size>& asked);

/**
 * Why the captured display delivers no more pictures, as "<purpose> the display ... any more: ...";
 * nullopt while it may deliver some.
 */
std::optional<std::string> display_problem(const zu3_host_statistics_t& since_start,
                                           const std::string& purpose);

/** Names of the displays of this machine that have a socket, and DISPLAY. */
std::vector<std::string> known_displays();

} // namespace client
