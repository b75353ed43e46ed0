#pragma once

#include "capture/x11_view.h"

#include <optional>

namespace zu3host {

/**
 * A window without its border, even if it moves or is covered: the server keeps its pixels in a
 * separate pixmap (COMPOSITE). While it is not mapped, its picture stands still.
 */
class X11WindowView : public X11View {
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

} // namespace zu3host
