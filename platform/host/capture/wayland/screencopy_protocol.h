#pragma once

#include <cstdint>
#include <wayland-client.h>

namespace zu3host {

// The used parts of two protocols that Debian does not package: the compositor's copy of an output
// (zwlr_screencopy_unstable_v1, version 3) and the logical size of an output
// (zxdg_output_unstable_v1, version 3). Each object is a wl_proxy.

struct ScreencopyManager;
struct ScreencopyFrame;
struct LogicalOutputManager;
struct LogicalOutput;

extern const wl_interface screencopy_manager_interface;
extern const wl_interface screencopy_frame_interface;
extern const wl_interface logical_output_manager_interface;
extern const wl_interface logical_output_interface;

/** copy_with_damage exists from this version on. */
inline constexpr uint32_t least_screencopy_version = 2;
/** From this version on, buffer_done follows the last offer of a buffer. */
inline constexpr uint32_t screencopy_version_with_done = 3;

/** The events of a frame, in the protocol's order. */
struct ScreencopyFrameListener {
    /** the buffer in shared memory that a copy needs; format is a wl_shm_format */
    void (*buffer)(void* data, ScreencopyFrame* frame, uint32_t format, uint32_t width,
                   uint32_t height, uint32_t stride);
    /** bit 0: the first line is the lowest one */
    void (*flags)(void* data, ScreencopyFrame* frame, uint32_t flags);
    /** the copy is complete; the time it was presented */
    void (*ready)(void* data, ScreencopyFrame* frame, uint32_t seconds_high, uint32_t seconds_low,
                  uint32_t nanoseconds);
    void (*failed)(void* data, ScreencopyFrame* frame);
    /** pixels of the buffer that differ from the client's last copy; ahead of ready */
    void (*damage)(void* data, ScreencopyFrame* frame, uint32_t x, uint32_t y, uint32_t width,
                   uint32_t height);
    void (*linux_dmabuf)(void* data, ScreencopyFrame* frame, uint32_t format, uint32_t width,
                         uint32_t height);
    void (*buffer_done)(void* data, ScreencopyFrame* frame);
};

/** The events of a logical output, in the protocol's order. */
struct LogicalOutputListener {
    void (*logical_position)(void* data, LogicalOutput* output, int32_t x, int32_t y);
    void (*logical_size)(void* data, LogicalOutput* output, int32_t width, int32_t height);
    void (*done)(void* data, LogicalOutput* output);
    void (*name)(void* data, LogicalOutput* output, const char* name);
    void (*description)(void* data, LogicalOutput* output, const char* description);
};

/** The next frame of an output; null without memory. */
ScreencopyFrame* capture_output(ScreencopyManager* manager, bool pointer, wl_output* output);
/** Copies the next frame, even if it does not differ. */
void copy(ScreencopyFrame* frame, wl_buffer* buffer);
/** Copies the next frame that differs from the client's last copy. */
void copy_with_damage(ScreencopyFrame* frame, wl_buffer* buffer);
void destroy(ScreencopyFrame* frame);
void destroy(ScreencopyManager* manager);

LogicalOutput* logical_output(LogicalOutputManager* manager, wl_output* output);
void destroy(LogicalOutput* output);
void destroy(LogicalOutputManager* manager);

/** False without memory. `listener` must live as long as the object. */
bool listen(ScreencopyFrame* frame, const ScreencopyFrameListener& listener, void* data);
bool listen(LogicalOutput* output, const LogicalOutputListener& listener, void* data);

} // namespace zu3host
