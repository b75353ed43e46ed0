#include "audio/pulse_connection.h"

#include "audio/pcm_reader.h"
#include "base/border.h"

#include <common/clock.h>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <utility>

namespace zu3host {

namespace {

/**
 * Sound comes in pieces of 20 ms: soon enough for what is recorded, seldom enough to cost nothing.
 */
constexpr uint32_t piece_bytes = pcm_rate / 50 * pcm_frame_bytes;
/** A greater latency is an error of the server. */
constexpr pa_usec_t greatest_latency = 5'000'000;
/**
 * Intervals between two requests for the time. At the start of a row they are short, to place it
 * soon, and share no factor with a server's cycle. Later they are short enough for a good mean of a
 * server's jittering answers.
 */
constexpr pa_usec_t ask_at_start_us = 7'000;
constexpr pa_usec_t ask_later_us = 97'000;
/** Places sound that arrived while this process was stopped by the timing from before. */
constexpr pa_usec_t greatest_age = 60'000'000;
constexpr int64_t greatest_backlog_bytes = greatest_age / 1'000'000 * pcm_rate * pcm_frame_bytes;

/**
 * Has the memory files of libpulse, which it opens without O_CLOEXEC, closed in programs that this
 * process starts.
 */
bool mark_memory_files()
{
    std::error_code error;
    for (std::filesystem::directory_iterator at("/proc/self/fd", error), end; !error && at != end;
         at.increment(error)) {
        std::error_code closed_meanwhile;
        const std::string target =
            std::filesystem::read_symlink(at->path(), closed_meanwhile).string();
        if (target.starts_with("/memfd:pulseaudio"))
            fcntl(std::atoi(at->path().filename().c_str()), F_SETFD, FD_CLOEXEC);
    }
    return true;
}

/** To be called when libpulse may have made or received a memory file. */
void keep_pulse_memory_from_children()
{
    answer_or(false, mark_memory_files, [](const char*) {});
}

} // namespace

PulseConnection::PulseConnection(pa_mainloop* loop, PulseListener& listener, WantedSource wanted)
    : listener_(listener), wanted_(std::move(wanted)), api_(pa_mainloop_get_api(loop)),
      context_(pa_context_new(api_, "screenrecord"))
{
    if (!context_) {
        fail("no memory for a connection");
        return;
    }
    keep_pulse_memory_from_children();
    pa_context_set_state_callback(context_, context_changed, this);
    if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
        fail_as_context_says();
}

PulseConnection::~PulseConnection()
{
    close_stream();
    finder_.reset();
    if (!context_)
        return;
    pa_context_set_state_callback(context_, nullptr, nullptr);
    pa_context_disconnect(context_);
    pa_context_unref(context_);
}

void PulseConnection::context_changed(pa_context* context, void* self)
{
    const pa_context_state_t state = pa_context_get_state(context);
    auto& connection = *static_cast<PulseConnection*>(self);
    if (state == PA_CONTEXT_READY)
        connection.finder_.emplace(
            connection.api_, context, connection.wanted_,
            [&connection](const std::string& name) { connection.record(name); });
    else if (!PA_CONTEXT_IS_GOOD(state))
        connection.fail_as_context_says();
}

void PulseConnection::record(const std::string& name)
{
    close_stream();
    if (!name.empty())
        open_stream(name.c_str());
    else
        listener_.absent();
}

void PulseConnection::open_stream(const char* source)
{
    const pa_sample_spec format{PA_SAMPLE_S16LE, pcm_rate, pcm_channels};
    stream_ = pa_stream_new(context_, "recording", &format, nullptr);
    if (!stream_) {
        fail_as_context_says();
        return;
    }
    start_.restart();
    row_begun_ = false;
    frames_read_ = 0;
    pa_stream_set_state_callback(stream_, stream_changed, this);
    pa_stream_set_read_callback(stream_, stream_readable, this);
    pa_stream_set_latency_update_callback(stream_, timing_updated, this);
    const pa_buffer_attr buffer{UINT32_MAX, UINT32_MAX, UINT32_MAX, UINT32_MAX, piece_bytes};
    // A stream that the server moves would record another source.
    const int flags = PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_DONT_MOVE;
    if (pa_stream_connect_record(stream_, source, &buffer, static_cast<pa_stream_flags_t>(flags)) <
        0)
        stream_ended();
}

void PulseConnection::close_stream()
{
    if (asking_)
        api_->time_free(std::exchange(asking_, nullptr));
    if (!stream_)
        return;
    pa_stream_set_state_callback(stream_, nullptr, nullptr);
    pa_stream_set_read_callback(stream_, nullptr, nullptr);
    pa_stream_set_latency_update_callback(stream_, nullptr, nullptr);
    pa_stream_disconnect(stream_);
    pa_stream_unref(stream_);
    stream_ = nullptr;
}

void PulseConnection::stream_changed(pa_stream* stream, void* self)
{
    const pa_stream_state_t state = pa_stream_get_state(stream);
    auto& connection = *static_cast<PulseConnection*>(self);
    if (state == PA_STREAM_READY) {
        connection.listener_.connected();
        connection.ask_for_timing();
        keep_pulse_memory_from_children();
    } else if (!PA_STREAM_IS_GOOD(state))
        connection.stream_ended();
}

/** A removed source ends only its stream. */
void PulseConnection::stream_ended()
{
    if (!finder_ || !PA_CONTEXT_IS_GOOD(pa_context_get_state(context_))) {
        fail_as_context_says();
        return;
    }
    close_stream();
    finder_->lost();
}

void PulseConnection::ask_for_timing()
{
    if (pa_operation* const asked = pa_stream_update_timing_info(stream_, nullptr, nullptr))
        pa_operation_unref(asked);
    if (!row_begun_)
        ask_again_in(ask_at_start_us);
    else if (start_.jitters())
        ask_again_in(ask_later_us);
}

void PulseConnection::ask()
{
    // null while it is not connected
    if (pa_operation* const asked = pa_context_get_server_info(context_, nullptr, nullptr))
        pa_operation_unref(asked);
}

void PulseConnection::ask_again_in(pa_usec_t us)
{
    const pa_usec_t then = pa_rtclock_now() + us;
    if (asking_)
        pa_context_rttime_restart(context_, asking_, then);
    else
        asking_ = pa_context_rttime_new(context_, then, time_to_ask, this);
}

void PulseConnection::time_to_ask(pa_mainloop_api*, pa_time_event*, const timeval*, void* self)
{
    static_cast<PulseConnection*>(self)->ask_for_timing();
}

void PulseConnection::timing_updated(pa_stream*, void* self)
{
    auto& connection = *static_cast<PulseConnection*>(self);
    const auto next_us = connection.time_of_next_us();
    if (!next_us || connection.row_begun_)
        return;
    answer_or(
        false,
        [&] {
            connection.start_.report(*next_us - connection.frames_read_ * 1000 / (pcm_rate / 1000));
            return true;
        },
        [](const char*) {});
}

void PulseConnection::stream_readable(pa_stream*, size_t, void* self)
{
    static_cast<PulseConnection*>(self)->read_all();
}

void PulseConnection::read_all()
{
    const void* data = nullptr;
    size_t bytes = 0;
    while (pa_stream_peek(stream_, &data, &bytes) == 0 && bytes > 0) {
        hear(static_cast<const int16_t*>(data), static_cast<int64_t>(bytes / pcm_frame_bytes));
        pa_stream_drop(stream_);
    }
    if (!row_begun_ && start_.settled())
        begin_row();
}

void PulseConnection::hear(const int16_t* samples, int64_t frames)
{
    if (row_begun_) {
        if (const auto heard_us = time_of_next_us())
            listener_.heard(samples, frames, *heard_us);
        return;
    }
    frames_read_ += frames;
    answer_or(
        false,
        [&] {
            start_.keep(samples, frames);
            return true;
        },
        [](const char*) {});
}

void PulseConnection::begin_row()
{
    const std::span<const int16_t> kept = start_.samples();
    const auto frames = static_cast<int64_t>(kept.size() / pcm_channels);
    // Sound too old to be kept was already placed.
    const int64_t forgotten = frames_read_ - frames;
    listener_.heard(kept.data(), frames, start_.first_us() + forgotten * 1000 / (pcm_rate / 1000));
    row_begun_ = true;
    start_.forget_samples();
}

// From the server's report: at `timestamp` the byte at write_index was the next to be written,
// source_usec after it left the output's data and sink_usec before the output plays it. The
// library's interpolated time does not help: it is never before the stream's beginning, but an
// output that has rendered ahead plays later.
std::optional<int64_t> PulseConnection::time_of_next_us() const
{
    const pa_timing_info* const timing = pa_stream_get_timing_info(stream_);
    if (!timing || timing->write_index_corrupt || timing->read_index_corrupt)
        return std::nullopt;
    const pa_usec_t age = pa_timeval_age(&timing->timestamp);
    int64_t bytes = 0;
    const bool overflows = __builtin_sub_overflow(timing->read_index, timing->write_index, &bytes);
    if (age > greatest_age || timing->sink_usec > greatest_latency ||
        timing->source_usec > greatest_latency || overflows || bytes > greatest_backlog_bytes ||
        bytes < -greatest_backlog_bytes)
        return std::nullopt;
    const int64_t frames = bytes / int64_t{pcm_frame_bytes};
    return common::monotonic_us() - static_cast<int64_t>(age) -
           static_cast<int64_t>(timing->source_usec) + static_cast<int64_t>(timing->sink_usec) +
           frames * 1000 / (pcm_rate / 1000);
}

void PulseConnection::fail(const char* why)
{
    if (!failure_)
        failure_ = why;
}

void PulseConnection::fail_as_context_says()
{
    fail(pa_strerror(pa_context_errno(context_)));
}

} // namespace zu3host
