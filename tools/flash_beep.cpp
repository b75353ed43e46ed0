/**
 * Flashes the whole X display white while it beeps through the sound server, every 1.005 s for 100
 * ms. Use it to compare the timing of picture and sound in a recording. The flashes are spread over
 * the frame period, so on average a frame shows a flash half a period late.
 *
 * flash_beep [--seconds N]     default 60
 *
 * The sound is written in advance; the flash is drawn when the stream's clock reaches the beep's
 * first sample. Prints "ready" once both run. Exit code 1 if the display or the sound server is
 * unreachable or goes away.
 */
#include <atomic>
#include <cmath>
#include <cstdio>
#include <string_view>
#include <utility>

#include <pulse/pulseaudio.h>

#include "x_screen.h"

namespace {

constexpr uint32_t sample_rate = 48000;
constexpr uint32_t beep_samples = sample_rate / 10;
constexpr int64_t second_ns = 1'000'000'000;
constexpr uint32_t period_samples = sample_rate * 1005 / 1000;
constexpr int64_t period_ns = second_ns * 1005 / 1000;
// A sink may have rendered two seconds ahead before it learns of the requested latency; until then
// its clock is wrong.
constexpr int64_t rendered_ahead_ns = 5 * second_ns / 2;

/** A mono stream that beeps for a tenth of a second at the start of each of its periods. */
class BeepStream {
public:
    BeepStream() : loop_(pa_threaded_mainloop_new())
    {
        context_ = pa_context_new(pa_threaded_mainloop_get_api(loop_), "flash_beep");
        pa_context_set_state_callback(context_, signal_context, this);
        if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0)
            pa_threaded_mainloop_start(loop_);
    }
    BeepStream(const BeepStream&) = delete;
    BeepStream& operator=(const BeepStream&) = delete;
    ~BeepStream()
    {
        pa_threaded_mainloop_stop(loop_);
        if (stream_)
            pa_stream_unref(stream_);
        pa_context_unref(context_);
        pa_threaded_mainloop_free(loop_);
    }

    /** Waits for the server, then for the stream. False if either fails. */
    bool play()
    {
        pa_threaded_mainloop_lock(loop_);
        const bool playing = wait_for_context() && open_stream() && wait_for_stream();
        pa_threaded_mainloop_unlock(loop_);
        return playing;
    }

    /**
     * Monotonic time at which the stream's sample 0 is audible; 0 while unknown, -1 if the stream
     * is lost.
     */
    int64_t origin_ns()
    {
        pa_threaded_mainloop_lock(loop_);
        pa_usec_t heard_us = 0;
        int64_t origin = pa_stream_get_state(stream_) == PA_STREAM_READY ? 0 : -1;
        if (origin == 0 && pa_stream_get_time(stream_, &heard_us) == 0 && heard_us > 0)
            origin = XScreen::now_ns() - static_cast<int64_t>(heard_us) * 1000;
        pa_threaded_mainloop_unlock(loop_);
        return origin;
    }

private:
    static void signal_context(pa_context*, void* self)
    {
        static_cast<BeepStream*>(self)->signal();
    }
    static void signal_stream(pa_stream*, void* self) { static_cast<BeepStream*>(self)->signal(); }
    static void write_samples(pa_stream* stream, size_t bytes, void* self)
    {
        static_cast<BeepStream*>(self)->write(stream, bytes);
    }
    void signal() { pa_threaded_mainloop_signal(loop_, 0); }

    bool wait_for_context()
    {
        while (PA_CONTEXT_IS_GOOD(pa_context_get_state(context_))) {
            if (pa_context_get_state(context_) == PA_CONTEXT_READY)
                return true;
            pa_threaded_mainloop_wait(loop_);
        }
        return false;
    }

    bool open_stream()
    {
        const pa_sample_spec format{PA_SAMPLE_S16LE, sample_rate, 1};
        stream_ = pa_stream_new(context_, "beeps", &format, nullptr);
        if (!stream_)
            return false;
        pa_stream_set_state_callback(stream_, signal_stream, this);
        pa_stream_set_write_callback(stream_, write_samples, this);
        // Without pre-buffering the clock continues through an underrun, so each sample keeps its
        // time.
        const pa_buffer_attr buffer{UINT32_MAX, sample_rate * 2 / 10, 0, UINT32_MAX, UINT32_MAX};
        const int flags = PA_STREAM_ADJUST_LATENCY | PA_STREAM_INTERPOLATE_TIMING |
                          PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_NOT_MONOTONIC;
        return pa_stream_connect_playback(stream_, nullptr, &buffer,
                                          static_cast<pa_stream_flags_t>(flags), nullptr,
                                          nullptr) == 0;
    }

    bool wait_for_stream()
    {
        while (PA_STREAM_IS_GOOD(pa_stream_get_state(stream_))) {
            if (pa_stream_get_state(stream_) == PA_STREAM_READY)
                return true;
            pa_threaded_mainloop_wait(loop_);
        }
        return false;
    }

    void write(pa_stream* stream, size_t bytes)
    {
        while (bytes >= sizeof(int16_t)) {
            void* data = nullptr;
            size_t room = bytes;
            if (pa_stream_begin_write(stream, &data, &room) < 0 || !data)
                return;
            room = std::min(room, bytes) & ~size_t{1};
            auto* samples = static_cast<int16_t*>(data);
            for (size_t i = 0; i < room / sizeof(int16_t); ++i)
                samples[i] = sample(written_++);
            pa_stream_write(stream, data, room, nullptr, 0, PA_SEEK_RELATIVE);
            bytes -= room;
        }
    }

    static int16_t sample(uint64_t index)
    {
        const uint64_t place = index % period_samples;
        if (place >= beep_samples)
            return 0;
        return static_cast<int16_t>(
            26000 * std::sin(2 * M_PI * 1000 * static_cast<double>(place) / sample_rate));
    }

    pa_threaded_mainloop* loop_;
    pa_context* context_ = nullptr;
    pa_stream* stream_ = nullptr;
    // main loop's thread only
    uint64_t written_ = 0;
};

/** Shows each flash when its beep is audible. False if display or stream is lost. */
bool flash(XScreen& screen, BeepStream& beeps, int seconds)
{
    const xcb_rectangle_t all{0, 0, screen.width, screen.height};
    const int64_t end = XScreen::now_ns() + seconds * second_ns;
    int64_t origin = 0;
    while (XScreen::now_ns() < end) {
        const int64_t before = std::exchange(origin, beeps.origin_ns());
        // The clock may jump after an underrun; a late query is more accurate.
        const bool settled = origin > 0 && std::abs(origin - before) < 2'000'000;
        const int64_t now = XScreen::now_ns();
        const int64_t due = now + period_ns - (now - origin) % period_ns;
        const bool soon = settled && due - now < 20'000'000;
        if (origin < 0 || !screen.wait_until(soon ? due : now + 10'000'000))
            return false;
        if (!soon)
            continue;
        screen.fill(screen.window, 0xffffff, all);
        screen.flush();
        if (!screen.wait_until(due + second_ns / 10))
            return false;
        screen.fill(screen.window, 0x000000, all);
        screen.flush();
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    const bool timed = argc == 3 && std::string_view(argv[1]) == "--seconds";
    const int seconds = timed ? atoi(argv[2]) : 60;
    if ((argc != 1 && !timed) || seconds <= 0) {
        fprintf(stderr, "usage: flash_beep [--seconds N]\n");
        return 2;
    }
    XScreen screen;
    if (!screen.alive()) {
        fprintf(stderr, "flash_beep: the display of DISPLAY cannot be reached\n");
        return 1;
    }
    BeepStream beeps;
    if (!beeps.play()) {
        fprintf(stderr, "flash_beep: the sound server cannot be reached\n");
        return 1;
    }
    screen.show();
    screen.finish();
    if (!screen.wait_until(XScreen::now_ns() + rendered_ahead_ns))
        return 1;
    puts("ready");
    fflush(stdout);
    return flash(screen, beeps, seconds) ? 0 : 1;
}
