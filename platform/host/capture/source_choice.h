#pragma once

#include "capture/screen_module.h"

#include <common/screen_part.h>
#include <memory>
#include <string>
#include <vector>
#include <zu3_host/screen.h>

namespace zu3host {

/** A screen to capture, or the reason why there is none. */
struct ChosenScreen {
    /** ZU3_HOST_SCREEN_* */
    uint32_t kind = ZU3_HOST_SCREEN_UNKNOWN;
    /** null on failure */
    std::unique_ptr<PictureSource> source{};
    /** for messages */
    std::string name{};
    /** the end of a sentence; empty if it can be captured, or if the log has the reason */
    std::string problem{};
    uint32_t refresh_mhz = 0;
};

/** Opens a part of the source that ZU3_DISPLAY names, or by default of the session's. */
ChosenScreen open_chosen_screen(const common::ScreenPart& part);

/** The source that open_chosen_screen() opens, without opening X11's or the test card. */
ChosenScreen open_wayland_screen(const common::ScreenPart& part);

/**
 * Adds the reason for this source, then the requirements of the part, like
 * zu3_host_examine_screen().
 */
uint32_t examine_screen(const common::ScreenPart& part, std::vector<ScreenFinding>& findings);

/** The outputs of the Wayland session; empty if no compositor answers. */
std::vector<ScreenOutput> list_wayland_outputs(const common::ScreenPart& part);

} // namespace zu3host
