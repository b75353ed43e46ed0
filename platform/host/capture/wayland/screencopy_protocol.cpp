#include "capture/wayland/screencopy_protocol.h"

namespace zu3host {

namespace {

// Requests, numbered in the protocols' order.
constexpr uint32_t manager_capture_output = 0;
constexpr uint32_t manager_destroy = 2;
constexpr uint32_t frame_copy = 0;
constexpr uint32_t frame_destroy = 1;
constexpr uint32_t frame_copy_with_damage = 2;
constexpr uint32_t logical_destroy = 0;
constexpr uint32_t logical_manager_destroy = 0;
constexpr uint32_t logical_manager_get = 1;

// The interface of each object among a message's arguments, null for other arguments.
const wl_interface* no_objects[7] = {};
const wl_interface* capture_output_objects[] = {&screencopy_frame_interface, nullptr,
                                                &wl_output_interface};
const wl_interface* capture_region_objects[] = {
    &screencopy_frame_interface, nullptr, &wl_output_interface, nullptr, nullptr, nullptr, nullptr};
const wl_interface* copy_objects[] = {&wl_buffer_interface};
const wl_interface* logical_output_objects[] = {&logical_output_interface, &wl_output_interface};

const wl_message manager_requests[] = {
    {"capture_output", "nio", capture_output_objects},
    {"capture_output_region", "nioiiii", capture_region_objects},
    {"destroy", "", no_objects},
};
const wl_message frame_requests[] = {
    {"copy", "o", copy_objects},
    {"destroy", "", no_objects},
    {"copy_with_damage", "2o", copy_objects},
};
const wl_message frame_events[] = {
    {"buffer", "uuuu", no_objects},   {"flags", "u", no_objects},
    {"ready", "uuu", no_objects},     {"failed", "", no_objects},
    {"damage", "2uuuu", no_objects},  {"linux_dmabuf", "3uuu", no_objects},
    {"buffer_done", "3", no_objects},
};
const wl_message logical_manager_requests[] = {
    {"destroy", "", no_objects},
    {"get_xdg_output", "no", logical_output_objects},
};
const wl_message logical_requests[] = {{"destroy", "", no_objects}};
const wl_message logical_events[] = {
    {"logical_position", "ii", no_objects},
    {"logical_size", "ii", no_objects},
    {"done", "", no_objects},
    {"name", "2s", no_objects},
    {"description", "2s", no_objects},
};

template <typename Object> wl_proxy* proxy(Object* object)
{
    return reinterpret_cast<wl_proxy*>(object);
}

template <typename Object> void destroy_by(Object* object, uint32_t request)
{
    wl_proxy_marshal_flags(proxy(object), request, nullptr, wl_proxy_get_version(proxy(object)),
                           WL_MARSHAL_FLAG_DESTROY);
}

template <typename Object, typename Listener>
bool add_listener(Object* object, const Listener& listener, void* data)
{
    // libwayland declares the table of functions without const, and only reads it.
    auto* const table = reinterpret_cast<void (**)(void)>(const_cast<Listener*>(&listener));
    return wl_proxy_add_listener(proxy(object), table, data) == 0;
}

} // namespace

const wl_interface screencopy_manager_interface = {
    "zwlr_screencopy_manager_v1", 3, 3, manager_requests, 0, nullptr};
const wl_interface screencopy_frame_interface = {
    "zwlr_screencopy_frame_v1", 3, 3, frame_requests, 7, frame_events};
const wl_interface logical_output_manager_interface = {"zxdg_output_manager_v1", 3, 2,
                                                       logical_manager_requests, 0, nullptr};
const wl_interface logical_output_interface = {"zxdg_output_v1", 3, 1,
                                               logical_requests, 5, logical_events};

ScreencopyFrame* capture_output(ScreencopyManager* manager, bool pointer, wl_output* output)
{
    return reinterpret_cast<ScreencopyFrame*>(wl_proxy_marshal_flags(
        proxy(manager), manager_capture_output, &screencopy_frame_interface,
        wl_proxy_get_version(proxy(manager)), 0, nullptr, int32_t{pointer}, output));
}

void copy(ScreencopyFrame* frame, wl_buffer* buffer)
{
    wl_proxy_marshal_flags(proxy(frame), frame_copy, nullptr, wl_proxy_get_version(proxy(frame)), 0,
                           buffer);
}

void copy_with_damage(ScreencopyFrame* frame, wl_buffer* buffer)
{
    wl_proxy_marshal_flags(proxy(frame), frame_copy_with_damage, nullptr,
                           wl_proxy_get_version(proxy(frame)), 0, buffer);
}

void destroy(ScreencopyFrame* frame)
{
    destroy_by(frame, frame_destroy);
}

void destroy(ScreencopyManager* manager)
{
    destroy_by(manager, manager_destroy);
}

LogicalOutput* logical_output(LogicalOutputManager* manager, wl_output* output)
{
    return reinterpret_cast<LogicalOutput*>(
        wl_proxy_marshal_flags(proxy(manager), logical_manager_get, &logical_output_interface,
                               wl_proxy_get_version(proxy(manager)), 0, nullptr, output));
}

void destroy(LogicalOutput* output)
{
    destroy_by(output, logical_destroy);
}

void destroy(LogicalOutputManager* manager)
{
    destroy_by(manager, logical_manager_destroy);
}

bool listen(ScreencopyFrame* frame, const ScreencopyFrameListener& listener, void* data)
{
    return add_listener(frame, listener, data);
}

bool listen(LogicalOutput* output, const LogicalOutputListener& listener, void* data)
{
    return add_listener(output, listener, data);
}

} // namespace zu3host
