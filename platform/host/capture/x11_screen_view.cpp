#include "capture/x11_screen_view.h"

#include <common/x11_part.h>
#include <utility>

namespace zu3host {

X11ScreenView::X11ScreenView(X11Connection& connection, common::ScreenPart part)
    : connection_(connection), part_(std::move(part))
{
    // Resizing the screen or a monitor reconfigures the root window.
    const uint32_t events = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(connection.xcb(), connection.screen().root, XCB_CW_EVENT_MASK,
                                 &events);
}

bool X11ScreenView::is_moved_by(const xcb_generic_event_t& event)
{
    return (event.response_type & 0x7F) == XCB_CONFIGURE_NOTIFY;
}

std::optional<X11Place> X11ScreenView::locate()
{
    const common::LocatedPart located =
        common::locate_part(connection_.xcb(), connection_.screen(), part_);
    if (!located.problem.empty()) {
        if (!part_.is_whole() && !connection_.lost())
            end_ = located.name + " is gone: " + located.problem;
        return std::nullopt;
    }
    const xcb_window_t root = connection_.screen().root;
    const auto x = static_cast<int16_t>(located.region.x);
    const auto y = static_cast<int16_t>(located.region.y);
    return X11Place{root, x, y, located.region.size, root, x, y};
}

} // namespace zu3host
