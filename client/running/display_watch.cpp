#include "running/display_watch.h"

#include <cstdlib>

namespace client {
namespace {

/**
 * A slow display is not lost, but a recording that gets no picture for so long does not wait any
 * more.
 */
constexpr uint32_t given_up_ms = 60'000;

} // namespace

std::optional<std::string> DisplayWatch::problem(const std::string& purpose) const
{
    const auto now = read_statistics();
    if (!now || !before_)
        return std::nullopt;
    const char* name = secure_getenv("DISPLAY");
    const std::string ended =
        purpose + " the display " + (name ? name : "") + " (DISPLAY) any more: ";
    if (now->display_lost && !before_->display_lost)
        return ended + "it went away";
    if (now->display_silent_ms >= given_up_ms)
        return ended + "it has not answered for a minute";
    return std::nullopt;
}

} // namespace client
