#include "capture/part_choice.h"

#include "base/host_log.h"

#include <string>

namespace zu3host {

std::optional<common::ScreenPart> chosen_screen_part()
{
    std::string problem;
    auto part = common::screen_part_of_environment(problem);
    if (!part)
        HOST_LOGE("No screen is captured: %s.", problem.c_str());
    return part;
}

} // namespace zu3host
