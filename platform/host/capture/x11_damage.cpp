#include "capture/x11_damage.h"

#include <common/screen_part.h>
#include <common/x11_screen.h>
#include <xcb/xfixes.h>

namespace zu3host {

namespace {

// With more parts, as from text or noise, the rectangle around them is used.
constexpr int most_parts = 256;

void add_inside(const xcb_rectangle_t& drawn, const X11Place& place, PartList& parts)
{
    const auto inside = common::overlap({drawn.x, drawn.y, {drawn.width, drawn.height}},
                                        {place.window_x, place.window_y, place.size});
    if (inside)
        parts.add({static_cast<uint32_t>(inside->x - place.window_x),
                   static_cast<uint32_t>(inside->y - place.window_y), inside->size});
}

} // namespace

X11Damage::X11Damage(X11Connection& connection, bool regions) : connection_(connection)
{
    xcb_connection_t* xcb = connection.xcb();
    if (!regions || !connection.has(&xcb_damage_id))
        return;
    const auto asked = xcb_damage_query_version(xcb, 1, 1);
    if (!connection.wait<xcb_damage_query_version_reply_t>(asked.sequence).reply)
        return;
    first_event_ = xcb_get_extension_data(xcb, &xcb_damage_id)->first_event;
    region_ = xcb_generate_id(xcb);
    xcb_xfixes_create_region(xcb, region_, 0, nullptr);
}

X11Damage::~X11Damage()
{
    if (damage_)
        xcb_damage_destroy(connection_.xcb(), damage_);
    if (region_)
        xcb_xfixes_destroy_region(connection_.xcb(), region_);
}

void X11Damage::watch(xcb_window_t window)
{
    if (!available())
        return;
    if (damage_)
        xcb_damage_destroy(connection_.xcb(), damage_);
    damage_ = xcb_generate_id(connection_.xcb());
    // One event at the first change, and no more until the damage is cleared: at most one event per
    // picture.
    xcb_damage_create(connection_.xcb(), damage_, window, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
    changed_ = true;
}

bool X11Damage::handle_event(const xcb_generic_event_t& event)
{
    if (!available() || (event.response_type & 0x7F) != first_event_ + XCB_DAMAGE_NOTIFY)
        return false;
    changed_ = true;
    return true;
}

void X11Damage::reset()
{
    if (!available())
        return;
    changed_ = false;
    xcb_damage_subtract(connection_.xcb(), damage_, XCB_NONE, XCB_NONE);
}

void X11Damage::request()
{
    changed_ = false;
    xcb_damage_subtract(connection_.xcb(), damage_, XCB_NONE, region_);
    sequence_ = xcb_xfixes_fetch_region(connection_.xcb(), region_).sequence;
}

void X11Damage::collect(const X11Place& place, PartList& parts)
{
    const auto region = connection_.wait<xcb_xfixes_fetch_region_reply_t>(sequence_);
    if (!region.reply)
        return parts.add_all();
    // the received number, according to the reply's length
    const int count = xcb_xfixes_fetch_region_rectangles_length(region.reply.get());
    if (count > most_parts)
        return add_inside(region.reply->extents, place, parts);
    const xcb_rectangle_t* drawn = xcb_xfixes_fetch_region_rectangles(region.reply.get());
    for (int i = 0; i < count; ++i)
        add_inside(drawn[i], place, parts);
}

} // namespace zu3host
