#include "audio/pulse_library.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <pulse/pulseaudio.h>
#include <sys/auxv.h>

namespace zu3host {

namespace {

/**
 * A process with privileges of its own loads the system's alone, not the first that it finds beside
 * itself.
 */
const char* library_name()
{
    return getauxval(AT_SECURE) ? ZU3_PULSE_LIBRARY : "libpulse.so.0";
}

struct Library {
    // never closed: its threads may linger
    void* handle = dlopen(library_name(), RTLD_NOW | RTLD_LOCAL);
    const std::string failure = handle ? "" : dlerror();
};

const Library& library()
{
    static const Library loaded;
    return loaded;
}

/**
 * A function of the library. Its callers have seen it loaded, and none of those named here is
 * optional.
 */
void* function(const char* name)
{
    void* const found = library().handle ? dlsym(library().handle, name) : nullptr;
    if (!found) {
        std::fprintf(stderr, "%s is called, and libpulse does not have it\n", name);
        std::abort();
    }
    return found;
}

} // namespace

const std::string& load_pulse_library()
{
    return library().failure;
}

} // namespace zu3host

// Functions of libpulse's own names and types take the place of its link-time ones, so that whoever
// calls them reads as ever. libzu3 and the program each have their own copy, which they do not
// export.
#define FORWARD(result, name, parameters, arguments)                                               \
    extern "C" result name parameters                                                              \
    {                                                                                              \
        static const auto real = reinterpret_cast<decltype(&name)>(zu3host::function(#name));      \
        return real arguments;                                                                     \
    }

FORWARD(int, pa_context_connect,
        (pa_context * c, const char* server, pa_context_flags_t flags, const pa_spawn_api* api),
        (c, server, flags, api))
FORWARD(void, pa_context_disconnect, (pa_context * c), (c))
FORWARD(int, pa_context_errno, (const pa_context* c), (c))
FORWARD(pa_operation*, pa_context_get_server_info,
        (pa_context * c, pa_server_info_cb_t done, void* data), (c, done, data))
FORWARD(pa_operation*, pa_context_get_source_info_list,
        (pa_context * c, pa_source_info_cb_t done, void* data), (c, done, data))
FORWARD(pa_context_state_t, pa_context_get_state, (const pa_context* c), (c))
FORWARD(pa_context*, pa_context_new, (pa_mainloop_api * api, const char* name), (api, name))
FORWARD(void, pa_context_set_state_callback,
        (pa_context * c, pa_context_notify_cb_t done, void* data), (c, done, data))
FORWARD(void, pa_context_unref, (pa_context * c), (c))
FORWARD(int, pa_mainloop_dispatch, (pa_mainloop * m), (m))
FORWARD(void, pa_mainloop_free, (pa_mainloop * m), (m))
FORWARD(pa_mainloop_api*, pa_mainloop_get_api, (pa_mainloop * m), (m))
FORWARD(pa_mainloop*, pa_mainloop_new, (), ())
FORWARD(int, pa_mainloop_poll, (pa_mainloop * m), (m))
FORWARD(int, pa_mainloop_prepare, (pa_mainloop * m, int timeout_us), (m, timeout_us))
FORWARD(void, pa_mainloop_wakeup, (pa_mainloop * m), (m))
FORWARD(pa_operation_state_t, pa_operation_get_state, (const pa_operation* o), (o))
FORWARD(void, pa_operation_unref, (pa_operation * o), (o))
FORWARD(int, pa_stream_connect_record,
        (pa_stream * s, const char* source, const pa_buffer_attr* buffer, pa_stream_flags_t flags),
        (s, source, buffer, flags))
FORWARD(int, pa_stream_disconnect, (pa_stream * s), (s))
FORWARD(int, pa_stream_drop, (pa_stream * s), (s))
FORWARD(pa_stream_state_t, pa_stream_get_state, (const pa_stream* s), (s))
FORWARD(const pa_timing_info*, pa_stream_get_timing_info, (pa_stream * s), (s))
FORWARD(pa_stream*, pa_stream_new,
        (pa_context * c, const char* name, const pa_sample_spec* format, const pa_channel_map* map),
        (c, name, format, map))
FORWARD(int, pa_stream_peek, (pa_stream * s, const void** data, size_t* bytes), (s, data, bytes))
FORWARD(void, pa_stream_set_read_callback, (pa_stream * s, pa_stream_request_cb_t done, void* data),
        (s, done, data))
FORWARD(void, pa_stream_set_state_callback, (pa_stream * s, pa_stream_notify_cb_t done, void* data),
        (s, done, data))
FORWARD(void, pa_stream_unref, (pa_stream * s), (s))
FORWARD(const char*, pa_strerror, (int error), (error))
FORWARD(pa_usec_t, pa_timeval_age, (const timeval* time), (time))
