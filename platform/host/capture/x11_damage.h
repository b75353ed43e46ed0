#pragma once

#include "capture/part_list.h"
#include "capture/x11_connection.h"
#include "capture/x11_image.h"

#include <cstdint>
#include <xcb/damage.h>

namespace zu3host {

/** Detects drawing on an X11 window, and the parts that were drawn. One thread at a time. */
class X11Damage {
public:
    /** @param regions whether the server may be asked for XFIXES's regions */
    X11Damage(X11Connection& connection, bool regions);
    ~X11Damage();
    X11Damage(const X11Damage&) = delete;
    X11Damage& operator=(const X11Damage&) = delete;

    /** Whether the server has DAMAGE. */
    bool available() const { return region_ != 0; }
    /** Watches this window instead of the previous one. */
    void watch(xcb_window_t window);
    /** Notes an event; false if it does not concern drawing. */
    bool handle_event(const xcb_generic_event_t& event);
    /**
     * Whether something was drawn since the last reset() or request(), according to the events
     * handled so far; may be true without a change.
     */
    bool changed() const { return changed_; }
    /**
     * Send it before a request for all pixels: only later drawing counts. No round trip.
     */
    void reset();
    /** The same, and asks for the parts drawn until then; call collect() next. */
    void request();
    /** Adds the parts within `place`, relative to its corner; all of it if the server fails. */
    void collect(const X11Place& place, PartList& parts);

private:
    X11Connection& connection_;
    uint8_t first_event_ = 0;
    xcb_damage_damage_t damage_ = 0;
    // the server's copy of the parts
    xcb_xfixes_region_t region_ = 0;
    unsigned sequence_ = 0;
    bool changed_ = true;
};

} // namespace zu3host
