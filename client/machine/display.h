#pragma once

#include <optional>
#include <string>
#include <vector>

#include "machine/host.h"
#include "machine/picture_size.h"

namespace client {

/** What a display says of itself. */
struct DisplayInfo {
    std::string name;
    Size size;
    /** 0 = it does not say */
    double refresh_hz = 0;
    /** pictures can be fetched through shared memory */
    bool shared_memory = false;
    /** why it cannot be captured, as the end of a sentence; empty when it can */
    std::string problem = {};
};

/**
 * Asks the X server `name` ("" = DISPLAY); nothing when it cannot be reached or does not answer
 * within 3 s.
 */
std::optional<DisplayInfo> probe_display(const std::string& name);

/**
 * What the capture will show: DISPLAY, or the platform's test card where ZU3_DISPLAY asks for it.
 * Throws Failure, also for a display whose pixels cannot be read.
 */
DisplayInfo display_to_capture();

/**
 * The size to capture of `display`: the one that was asked for, else the display's own, made even.
 * Says so when a display of odd size loses its last column or row to it.
 */
Size size_to_capture(const DisplayInfo& display, const std::optional<Size>& asked);

/**
 * Why the display that is being captured gives no more pictures: "<purpose> the display ... any
 * more: ..."; nullopt while it may give some.
 */
std::optional<std::string> display_problem(const zu3_host_statistics_t& since_start,
                                           const std::string& purpose);

/** Names of the displays of this machine whose socket exists, and of DISPLAY. */
std::vector<std::string> known_displays();

/** Whether ZU3_DISPLAY asks for the test card. */
bool test_card_asked();

} // namespace client
