#include "common/x11_part.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <xcb/randr.h>

#include <common/x11_screen.h>

namespace common {
namespace {

struct Free {
    void operator()(void* memory) const { std::free(memory); }
};

template <typename Reply> std::unique_ptr<Reply, Free> owned(Reply* reply)
{
    return std::unique_ptr<Reply, Free>(reply);
}

std::string atom_name(xcb_connection_t* connection, xcb_atom_t atom)
{
    const auto reply =
        owned(xcb_get_atom_name_reply(connection, xcb_get_atom_name(connection, atom), nullptr));
    if (!reply || !holds_behind(*reply, reply->name_len))
        return {};
    return {xcb_get_atom_name_name(reply.get()), reply->name_len};
}

bool knows_monitors(xcb_connection_t* connection)
{
    const auto* extension = xcb_get_extension_data(connection, &xcb_randr_id);
    if (!extension || !extension->present)
        return false;
    const auto version = owned(xcb_randr_query_version_reply(
        connection, xcb_randr_query_version(connection, 1, 5), nullptr));
    return version && (version->major_version > 1 || version->minor_version >= 5);
}

/** The window in a property of the root window. */
std::optional<xcb_window_t> window_property(xcb_connection_t* connection, xcb_window_t root,
                                            const char* name)
{
    const auto length = static_cast<uint16_t>(std::strlen(name));
    const auto atom = owned(
        xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 1, length, name), nullptr));
    if (!atom || atom->atom == XCB_NONE)
        return std::nullopt;
    const auto property = owned(xcb_get_property_reply(
        connection, xcb_get_property(connection, 0, root, atom->atom, XCB_ATOM_WINDOW, 0, 1),
        nullptr));
    xcb_window_t window = XCB_NONE;
    if (!property || property->format != 32 || property->value_len < 1 ||
        !holds_behind(*property, sizeof window))
        return std::nullopt;
    std::memcpy(&window, xcb_get_property_value(property.get()), sizeof window);
    return window;
}

/** The window with the focus, as the window manager tells, or without one the server. */
xcb_window_t find_active_window(xcb_connection_t* connection, xcb_window_t root)
{
    if (const auto active = window_property(connection, root, "_NET_ACTIVE_WINDOW"))
        return *active;
    const auto focus =
        owned(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
    return focus && focus->focus > XCB_INPUT_FOCUS_POINTER_ROOT ? focus->focus : XCB_NONE;
}

std::string window_text(xcb_window_t window)
{
    char text[sizeof "the window 0x00000000"];
    snprintf(text, sizeof text, "the window 0x%x", window);
    return text;
}

std::string size_text(PictureSize size)
{
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

std::string all_names(const std::vector<X11Monitor>& monitors)
{
    std::string names;
    for (const X11Monitor& monitor : monitors)
        names += (names.empty() ? "" : ", ") + monitor.name;
    return names;
}

void locate_window(xcb_connection_t* connection, const xcb_screen_t& screen, xcb_window_t chosen,
                   LocatedPart& located)
{
    const bool active = chosen == ScreenPart::active_window;
    const xcb_window_t id = active ? find_active_window(connection, screen.root) : chosen;
    located.name = active && id == XCB_NONE ? "the active window" : window_text(id);
    if (id == screen.root) {
        located.problem = "it is the root window; without a window, the whole screen is captured";
        return;
    }
    const auto window = id == XCB_NONE ? std::nullopt : find_window(connection, screen.root, id);
    if (!window) {
        located.problem =
            active ? "no window has the focus" : "the display has no window of that number";
        return;
    }
    // A window with an alpha channel has the same layout of colors.
    if (window->depth != screen.root_depth && !(window->depth == 32 && screen.root_depth == 24))
        located.problem = "its depth of " + std::to_string(window->depth) +
                          " bits per pixel differs from the screen's, " +
                          std::to_string(screen.root_depth);
    else if (!window->viewable)
        located.problem = "it is not shown; restore it if it is minimized";
    located.window = window->id;
    located.region = window->region;
}

/** A region counted from that corner; as far as numbers go. */
ScreenRegion moved(const ScreenRegion& region, int32_t x, int32_t y)
{
    constexpr int64_t least = std::numeric_limits<int32_t>::min();
    constexpr int64_t most = std::numeric_limits<int32_t>::max();
    return {static_cast<int32_t>(std::clamp(int64_t{region.x} + x, least, most)),
            static_cast<int32_t>(std::clamp(int64_t{region.y} + y, least, most)), region.size};
}

/** The region of a monitor; nullopt with a problem if there is no such monitor. */
std::optional<ScreenRegion> monitor_region(xcb_connection_t* connection, xcb_window_t root,
                                           const std::string& name, std::string& problem)
{
    const std::vector<X11Monitor> monitors = find_monitors(connection, root);
    const bool primary = name == ScreenPart::primary_monitor;
    const auto found = std::find_if(monitors.begin(), monitors.end(), [&](const auto& monitor) {
        return primary ? monitor.primary || monitors.size() == 1 : monitor.name == name;
    });
    if (found != monitors.end())
        return found->region;
    if (monitors.empty())
        problem = "the display does not list its monitors";
    else
        problem = (primary ? "none is the primary one" : "there is none of that name") +
                  std::string("; the display has ") + all_names(monitors);
    return std::nullopt;
}

} // namespace

std::vector<X11Monitor> find_monitors(xcb_connection_t* connection, xcb_window_t root)
{
    std::vector<X11Monitor> monitors;
    if (!knows_monitors(connection))
        return monitors;
    const auto reply = owned(xcb_randr_get_monitors_reply(
        connection, xcb_randr_get_monitors(connection, root, 1), nullptr));
    if (!reply)
        return monitors;
    ReplyWalk walk(reply.get() + 1, uint64_t{reply->length} * 4);
    for (uint32_t i = 0; i < reply->nMonitors; ++i) {
        const auto* monitor = walk.take<xcb_randr_monitor_info_t>();
        if (!monitor || !walk.skip(uint64_t{monitor->nOutput} * sizeof(xcb_randr_output_t)))
            break;
        monitors.push_back({atom_name(connection, monitor->name),
                            {monitor->x, monitor->y, {monitor->width, monitor->height}},
                            monitor->primary != 0});
    }
    return monitors;
}

std::optional<X11Window> find_window(xcb_connection_t* connection, xcb_window_t root,
                                     xcb_window_t id)
{
    const auto asked_geometry = xcb_get_geometry(connection, id);
    const auto asked_attributes = xcb_get_window_attributes(connection, id);
    const auto asked_corner = xcb_translate_coordinates(connection, id, root, 0, 0);
    const auto geometry = owned(xcb_get_geometry_reply(connection, asked_geometry, nullptr));
    const auto attributes =
        owned(xcb_get_window_attributes_reply(connection, asked_attributes, nullptr));
    const auto corner = owned(xcb_translate_coordinates_reply(connection, asked_corner, nullptr));
    if (!geometry || !attributes || !corner || geometry->root != root ||
        attributes->_class != XCB_WINDOW_CLASS_INPUT_OUTPUT)
        return std::nullopt;
    return X11Window{
        .id = id,
        .region = {corner->dst_x, corner->dst_y, {geometry->width, geometry->height}},
        .border = geometry->border_width,
        .depth = geometry->depth,
        .viewable = attributes->map_state == XCB_MAP_STATE_VIEWABLE,
    };
}

LocatedPart locate_part(xcb_connection_t* connection, const xcb_screen_t& screen,
                        const ScreenPart& part)
{
    LocatedPart located{.window = screen.root, .name = "the screen"};
    if (part.window) {
        locate_window(connection, screen, *part.window, located);
        return located;
    }
    const auto geometry = owned(
        xcb_get_geometry_reply(connection, xcb_get_geometry(connection, screen.root), nullptr));
    const PictureSize size =
        geometry ? PictureSize{geometry->width, geometry->height} : PictureSize{0, 0};
    std::optional<ScreenRegion> whole = ScreenRegion{0, 0, size};
    if (!part.monitor.empty()) {
        located.name = "the monitor " + part.monitor;
        whole = monitor_region(connection, screen.root, part.monitor, located.problem);
    }
    if (!whole)
        return located;
    ScreenRegion wanted = *whole;
    if (part.region) {
        const std::string within = part.monitor.empty() ? "" : " of " + located.name;
        located.name = "the region " + region_text(*part.region) + within;
        wanted = moved(*part.region, whole->x, whole->y);
    }
    const auto seen = overlap(*whole, {0, 0, size});
    const auto inside = seen ? overlap(wanted, *seen) : std::nullopt;
    if (!inside)
        located.problem =
            "it lies outside of the screen, which has " + size_text(whole->size) + " pixels";
    located.region = inside.value_or(ScreenRegion{});
    located.clipped = inside && *inside != wanted;
    return located;
}

} // namespace common
