#pragma once

#include "capture/x11_connection.h"
#include "capture/x11_image.h"

#include <common/screen_part.h>
#include <memory>
#include <optional>
#include <string>

namespace zu3host {

/** Finds the pixels of a part of the screen on the X server. One thread at a time. */
class X11View {
public:
    virtual ~X11View() = default;
    /** Whether an event may change the place. */
    virtual bool is_moved_by(const xcb_generic_event_t& event) = 0;
    /** Asks the server for the place; nullopt if there is none, now or for good. */
    virtual std::optional<X11Place> locate() = 0;
    /** Why there will be no place any more, as a sentence; empty while there may be one. */
    virtual std::string end() const = 0;
};

/** Null, with a log line, if the display has no such part. */
std::unique_ptr<X11View> open_x11_view(X11Connection& connection, const common::ScreenPart& part);

} // namespace zu3host
