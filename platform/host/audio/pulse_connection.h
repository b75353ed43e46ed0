#pragma once

#include "audio/pulse_module.h"
#include "audio/row_start.h"
#include "audio/source_finder.h"

#include <cstdint>
#include <optional>
#include <pulse/pulseaudio.h>

namespace zu3host {

/**
 * One connection to the sound server. It records the wanted source, and after that is removed the
 * next one that matches. Never starts a server. Use it on the thread that runs the main loop.
 */
class PulseConnection {
public:
    PulseConnection(pa_mainloop* loop, PulseListener& listener, WantedSource wanted);
    PulseConnection(const PulseConnection&) = delete;
    PulseConnection& operator=(const PulseConnection&) = delete;
    ~PulseConnection();

    /** Whether it came to an end, or never came about; it does not recover. */
    bool failed() const { return failure_ != nullptr; }
    /**
     * Why, in the server's words, which live as long as the process; null while it has not failed.
     */
    const char* failure() const { return failure_; }
    /** Has the server send an answer, if it is connected. */
    void ask();

private:
    static void context_changed(pa_context* context, void* self);
    static void stream_changed(pa_stream* stream, void* self);
    static void stream_readable(pa_stream* stream, size_t bytes, void* self);
    static void timing_updated(pa_stream* stream, void* self);
    static void time_to_ask(pa_mainloop_api* api, pa_time_event* event, const timeval* time,
                            void* self);
    void record(const std::string& name);
    void open_stream(const char* source);
    void close_stream();
    void stream_ended();
    void ask_for_timing();
    void ask_again_in(pa_usec_t us);
    void read_all();
    void hear(const int16_t* samples, int64_t frames);
    void begin_row();
    std::optional<int64_t> time_of_next_us() const;
    void fail(const char* why);
    void fail_as_context_says();

    PulseListener& listener_;
    const WantedSource wanted_;
    pa_mainloop_api* const api_;
    pa_context* context_;
    std::optional<SourceFinder> finder_;
    pa_stream* stream_ = nullptr;
    pa_time_event* asking_ = nullptr;
    RowStart start_;
    /** the row's place is known */
    bool row_begun_ = false;
    /** read from this stream */
    int64_t frames_read_ = 0;
    const char* failure_ = nullptr;
};

} // namespace zu3host
