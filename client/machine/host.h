#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <zu3_host/due_time.h>
#include <zu3_host/exact_size.h>
#include <zu3_host/frame_event.h>
#include <zu3_host/log_listener.h>
#include <zu3_host/quality.h>
#include <zu3_host/screen.h>
#include <zu3_host/slow_disk.h>
#include <zu3_host/slow_display.h>
#include <zu3_host/sound_time.h>
#include <zu3_host/statistics.h>

namespace client {

// Extensions of the host layer beside the contract. Each function looks its entry up by name, so
// the program also runs on a platform without it.

/**
 * `now` with each counter as the difference to `before`, `display_lost` and `sound_lost` 1 only if
 * lost since then, and the rest (levels, waiting times, the last errno) unchanged.
 */
zu3_host_statistics_t statistics_since(const zu3_host_statistics_t& before,
                                       zu3_host_statistics_t now);

/** The statistics of the host layer since the construction of this object. */
class StatisticsDelta {
public:
    StatisticsDelta();

    /**
     * statistics_since() the construction; fields that an older host layer lacks are 0.
     * @return nullopt if the platform has no statistics
     */
    std::optional<zu3_host_statistics_t> read() const;

private:
    std::optional<zu3_host_statistics_t> before_;
};

/** A descriptor that becomes readable with each encoded frame (frame_event.h); -1 = none. */
int frame_event();

/** Makes writes that wait for their disk fail from now on (slow_disk.h). */
void give_up_writes();
/** Ends the platform's current waits for the display, if it offers that. */
void give_up_display();

/**
 * Asks for a stream of exactly this size (exact_size.h).
 * @return false if the platform offers rounded sizes only
 */
bool want_exact_size(uint32_t width, uint32_t height);

/**
 * Asks for a constant quality under a ceiling in bits per second (quality.h).
 * @return false if the platform offers bit rates only
 */
bool want_quality(uint32_t quality, uint32_t ceiling);

/**
 * Asks for a bit rate, bits per second, of a recording of the library (quality.h).
 * @return false if the platform does not offer it
 */
bool want_bit_rate(uint32_t rate);

/** Lets a still picture have rare key frames, for a file (quality.h), if the platform offers it. */
void want_rare_key_frames();

/**
 * When the picture of a frame with this time stamp was due (due_time.h); the time stamp itself if
 * the platform does not tell.
 */
uint64_t due_time_of_frame(uint64_t pts_us);

/** When the first sample of the last read was heard (sound_time.h); 0 = unknown. */
uint64_t time_of_sound();

/** Has `listener` called with each line of the log (log_listener.h), if the platform offers it. */
void listen_to_host_log(zu3_host_log_listener_t listener);

/** A sentence about the platform; NULL = there is none. */
const char* platform_sentence();

/** Multiplexed bytes that are not yet in a file. */
inline uint64_t unwritten_bytes(const zu3_host_statistics_t& s)
{
    return s.bytes_multiplexed > s.bytes_written ? s.bytes_multiplexed - s.bytes_written : 0;
}

/** Pictures that capture dropped or the encoder refused. */
inline uint64_t pictures_left_out(const zu3_host_statistics_t& s)
{
    return s.pictures_dropped_late + s.pictures_dropped_no_buffer + s.pictures_dropped_no_display +
           s.pictures_refused;
}

/** Whether the display has not delivered a due picture for a second. */
inline bool display_is_silent(const zu3_host_statistics_t& s)
{
    return s.display_silent_ms >= 1000;
}

/** A source of the sound server. */
struct SoundSource {
    std::string name;
    std::string description;
    /** samples per second and channel */
    uint32_t sample_rate = 0;
    uint32_t channels = 0;
    /** whether recordings use it by default: it is the monitor of the default output */
    bool recorded = false;
    /** whether --sound microphone selects it now */
    bool microphone = false;
};

/** The sources of the sound server; nullopt if none answers within 3 s or libpulse is missing. */
std::optional<std::vector<SoundSource>> list_sound_sources();

/** The screen that recordings capture (screen.h). */
struct HostScreen {
    /** ZU3_HOST_SCREEN_* */
    uint32_t source = ZU3_HOST_SCREEN_UNKNOWN;
    /** pixels; 0 if it is not open: X11's, the test card, or one that cannot be opened */
    uint32_t width = 0;
    uint32_t height = 0;
    /** 0 = unknown */
    double refresh_hz = 0;
    std::string name = {};
    /** why it cannot be captured, as the end of a sentence; empty if it can */
    std::string problem = {};
};

/** Opens the screen for the next capture (screen.h); nullopt on a platform without that. */
std::optional<HostScreen> open_screen();

/** An output of the Wayland session. */
struct HostOutput {
    std::string name;
    std::string description;
    uint32_t width = 0;
    uint32_t height = 0;
    double scale = 1;
    /** counterclockwise */
    uint32_t degrees = 0;
    bool mirrored = false;
    /** 0 = unknown */
    double refresh_hz = 0;
    bool recorded = false;
};

/** The outputs of the Wayland session; empty if no compositor answers within 3 s. */
std::vector<HostOutput> list_outputs();

/** A finding about the screen's source: ZU3_HOST_FINDING_* and a sentence. */
struct HostFinding {
    uint32_t kind = ZU3_HOST_FINDING_GOOD;
    std::string sentence;
};

/**
 * Adds the source in use, the reason, and its requirements (screen.h).
 * @return ZU3_HOST_SCREEN_*; X11 on a platform that cannot tell
 */
uint32_t examine_screen(std::vector<HostFinding>& findings);

} // namespace client
