#pragma once

#include "capture/x11_connection.h"

#include <cstdint>
#include <xcb/damage.h>

namespace zu3host {

/** Whether anything was drawn on an X11 screen since a moment. One thread at a time. */
class X11Damage {
public:
    explicit X11Damage(X11Connection& connection);

    /** Whether the server can tell. */
    bool available() const { return damage_ != 0; }
    /** Takes note of an event; false when it does not concern drawing. */
    bool see(const xcb_generic_event_t& event);
    /**
     * Sent ahead of a request for the picture: what is drawn from then on counts. No round trip.
     */
    void forget();
    /**
     * Whether something was drawn, as far as events have been taken; may be true where nothing was.
     */
    bool any() const { return any_; }

private:
    X11Connection& connection_;
    xcb_damage_damage_t damage_ = 0;
    uint8_t first_event_ = 0;
    bool any_ = true;
};

} // namespace zu3host
