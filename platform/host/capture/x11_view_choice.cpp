#include "capture/x11_view_choice.h"

#include "base/host_log.h"
#include "capture/x11_screen_view.h"
#include "capture/x11_window_view.h"

#include <common/x11_part.h>

namespace zu3host {

std::unique_ptr<X11View> open_x11_view(X11Connection& connection, const common::ScreenPart& part)
{
    if (part.is_whole())
        return std::make_unique<X11ScreenView>(connection, part);
    const common::LocatedPart located =
        common::locate_part(connection.xcb(), connection.screen(), part);
    std::string problem = located.problem;
    if (problem.empty() && part.window && !X11WindowView::is_possible(connection))
        problem = "the X server has no COMPOSITE extension";
    if (!problem.empty()) {
        HOST_LOGE("DISPLAY=\"%s\": %s cannot be captured: %s.", connection.display().c_str(),
                  located.name.c_str(), problem.c_str());
        return nullptr;
    }
    if (part.window)
        return std::make_unique<X11WindowView>(connection, located.window);
    if (located.clipped)
        HOST_LOGW("DISPLAY=\"%s\": %s reaches beyond the screen; only %s is captured.",
                  connection.display().c_str(), located.name.c_str(),
                  common::region_text(located.region).c_str());
    return std::make_unique<X11ScreenView>(connection, part);
}

} // namespace zu3host
