#include "capture/x11_window_view.h"

#include <common/x11_part.h>
#include <xcb/composite.h>

namespace zu3host {

bool X11WindowView::is_possible(X11Connection& connection)
{
    if (!connection.has(&xcb_composite_id))
        return false;
    // 0.2 is the first that names a window's pixmap.
    const auto asked = xcb_composite_query_version(connection.xcb(), 0, 4);
    const auto version = connection.wait<xcb_composite_query_version_reply_t>(asked.sequence);
    return version.reply && (version.reply->major_version > 0 || version.reply->minor_version >= 2);
}

X11WindowView::X11WindowView(X11Connection& connection, xcb_window_t window)
    : connection_(connection), window_(window)
{
    const uint32_t events = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(connection.xcb(), window, XCB_CW_EVENT_MASK, &events);
    xcb_composite_redirect_window(connection.xcb(), window, XCB_COMPOSITE_REDIRECT_AUTOMATIC);
}

X11WindowView::~X11WindowView()
{
    if (place_)
        xcb_free_pixmap(connection_.xcb(), place_->drawable);
    if (!closed_)
        xcb_composite_unredirect_window(connection_.xcb(), window_,
                                        XCB_COMPOSITE_REDIRECT_AUTOMATIC);
}

bool X11WindowView::is_moved_by(const xcb_generic_event_t& event)
{
    switch (event.response_type & 0x7F) {
    case XCB_DESTROY_NOTIFY:
        closed_ = true;
        return true;
    case XCB_MAP_NOTIFY:
        return true;
    case XCB_CONFIGURE_NOTIFY: {
        const auto& now = reinterpret_cast<const xcb_configure_notify_event_t&>(event);
        return !place_ || place_->size != PictureSize{now.width, now.height} ||
               place_->x != now.border_width;
    }
    default:
        return false;
    }
}

std::optional<X11Place> X11WindowView::locate()
{
    xcb_connection_t* const xcb = connection_.xcb();
    const auto window =
        closed_ ? std::nullopt : common::find_window(xcb, connection_.screen().root, window_);
    if (!window) {
        closed_ = closed_ || !connection_.lost();
        return std::nullopt;
    }
    if (!window->viewable)
        return place_;
    const xcb_pixmap_t pixmap = xcb_generate_id(xcb);
    xcb_composite_name_window_pixmap(xcb, window_, pixmap);
    // The window may have been resized meanwhile.
    const auto asked = xcb_get_geometry(xcb, pixmap);
    const auto geometry = connection_.wait<xcb_get_geometry_reply_t>(asked.sequence);
    if (place_)
        xcb_free_pixmap(xcb, place_->drawable);
    place_.reset();
    const uint32_t border = window->border;
    if (!geometry.reply || geometry.reply->width > INT16_MAX ||
        geometry.reply->height > INT16_MAX || geometry.reply->width <= 2 * border ||
        geometry.reply->height <= 2 * border) {
        xcb_free_pixmap(xcb, pixmap);
        return std::nullopt;
    }
    const auto corner = static_cast<int16_t>(border);
    place_ = {pixmap,  corner,
              corner,  {geometry.reply->width - 2 * border, geometry.reply->height - 2 * border},
              window_, 0,
              0};
    return place_;
}

} // namespace zu3host
