#pragma once

#include "capture/x11_view.h"

#include <common/screen_part.h>

namespace zu3host {

/** The whole screen, or a region or a monitor of it; follows changes of the screen. */
class X11ScreenView : public X11View {
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

} // namespace zu3host
