#include "capture/x11_view.h"

#include "base/host_log.h"

#include <common/x11_part.h>
#include <utility>
#include <xcb/composite.h>

namespace zu3host {

namespace {

/** The whole screen, or a region or a monitor of it; follows changes of the screen. */
class X11ScreenView final : public X11View {
public:
    /** @param part not a window */
    X11ScreenView(X11Connection& connection, common::ScreenPart part);

    bool is_moved_by(const xcb_generic_event_t& event) override;
    std::optional<X11Place> locate() override;
    std::string end() const override { return end_; }

private:
    X11Connection& connection_;
    const common::ScreenPart part_;
    std::string end_;
};

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

/**
 * A window without its border, even if it moves or is covered: the server keeps its pixels in a
 * separate pixmap (COMPOSITE). While it is not mapped, its picture stands still.
 */
class X11WindowView final : public X11View {
public:
    /** Whether the server has COMPOSITE. */
    static bool is_possible(X11Connection& connection);

    X11WindowView(X11Connection& connection, xcb_window_t window);
    ~X11WindowView() override;
    X11WindowView(const X11WindowView&) = delete;
    X11WindowView& operator=(const X11WindowView&) = delete;

    bool is_moved_by(const xcb_generic_event_t& event) override;
    std::optional<X11Place> locate() override;
    std::string end() const override { return closed_ ? "the window was closed" : ""; }

private:
    X11Connection& connection_;
    const xcb_window_t window_;
    // its pixmap; a resized or remapped window gets another one
    std::optional<X11Place> place_;
    bool closed_ = false;
};

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

} // namespace

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
