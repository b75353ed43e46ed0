#pragma once

#include "audio/pulse_module.h"

#include <cstdint>
#include <optional>
#include <pulse/pulseaudio.h>

namespace zu3host {

/**
 * One connection to the sound server, which records the monitor of the default output, also when
 * the default changes. Never starts a server. To be used on the thread that runs the main loop.
 */
class PulseConnection {
public:
    PulseConnection(pa_mainloop* loop, PulseListener& listener);
    PulseConnection(const PulseConnection&) = delete;
    PulseConnection& operator=(const PulseConnection&) = delete;
    ~PulseConnection();

    /** Whether it came to an end, or never came about; it does not recover. */
    bool failed() const { return failure_ != nullptr; }
    /**
     * Why, in the server's words, which live as long as the process; null while it has not failed.
     */
    const char* failure() const { return failure_; }

private:
    static void context_changed(pa_context* context, void* self);
    static void stream_changed(pa_stream* stream, void* self);
    static void stream_readable(pa_stream* stream, size_t bytes, void* self);
    void open_stream();
    void close_stream();
    void read_all();
    std::optional<int64_t> time_of_next_us() const;
    void fail(const char* why);
    void fail_as_context_says();

    PulseListener& listener_;
    pa_context* context_;
    pa_stream* stream_ = nullptr;
    const char* failure_ = nullptr;
};

} // namespace zu3host
