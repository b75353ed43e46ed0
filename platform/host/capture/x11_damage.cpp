#include "capture/x11_damage.h"

namespace zu3host {

X11Damage::X11Damage(X11Connection& connection) : connection_(connection)
{
    xcb_connection_t* xcb = connection.xcb();
    if (!connection.has(&xcb_damage_id))
        return;
    const auto asked = xcb_damage_query_version(xcb, 1, 1);
    if (!connection.wait<xcb_damage_query_version_reply_t>(asked.sequence).reply)
        return;
    first_event_ = xcb_get_extension_data(xcb, &xcb_damage_id)->first_event;
    damage_ = xcb_generate_id(xcb);
    // One event when the screen is no longer as it was, and none more before it is forgotten:
    // whatever moves, that is one event a picture.
    xcb_damage_create(xcb, damage_, connection.screen().root, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
}

bool X11Damage::see(const xcb_generic_event_t& event)
{
    if (!available() || (event.response_type & 0x7F) != first_event_ + XCB_DAMAGE_NOTIFY)
        return false;
    any_ = true;
    return true;
}

void X11Damage::forget()
{
    if (!available())
        return;
    any_ = false;
    xcb_damage_subtract(connection_.xcb(), damage_, XCB_NONE, XCB_NONE);
}

} // namespace zu3host
