#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "machine/display.h"
#include <common/encoder_limits.h>
#include <common/screen_part.h>

namespace client {

/** A place in a picture, pixels from its top left corner; may lie outside. */
struct Position {
    int32_t x = 0;
    int32_t y = 0;
    bool operator==(const Position&) const = default;
};

/** "WxH", decimal; nullopt otherwise. size_problem() tells whether it can be captured. */
std::optional<Size> parse_size(std::string_view text);

/**
 * A bit rate in bits per second, 10000 to the greatest of any level: a number with an optional
 * fraction and an optional suffix, k (1000) or M (1000000) in either case.
 */
std::optional<uint32_t> parse_bit_rate(std::string_view text);
/** The form of a bit rate in messages. */
inline constexpr const char* bit_rate_form = "a rate from 10k to 240M, such as 800k or 2.5M";

/** x264's rate factor, 0 to 51, by number or as low, medium or high. */
std::optional<uint32_t> parse_quality(std::string_view text);
/** Medium, at which text on a screen stays sharp. */
inline constexpr uint32_t usual_quality = 22;

/** "X,Y", each with an optional minus sign; nullopt with a plus sign. */
std::optional<Position> parse_position(std::string_view text);

/** "10", "10s", "1h2m3.5s", "01:30" or "00:01:30": more than 0 and at most 10000000 seconds. */
std::optional<std::chrono::duration<double>> parse_time(std::string_view text);

/** The words of "a|b|c". */
std::vector<std::string> choices_of(std::string_view text);

/** The words as a list in a sentence: "a, b or c" if `last` is "or". */
std::string listed(const std::vector<std::string>& words, const char* last);

/** The word of `words` that is most like `typed`; nullopt if none is similar. */
std::optional<std::string> nearest_word(const std::string& typed,
                                        const std::vector<std::string>& words);

/** A whole number from 0 to 4294967295 without surrounding text. */
std::optional<uint32_t> parse_number(std::string_view text);

/** The levels of a stream, for choices_of(). */
inline constexpr const char* level_names = "1|1b|1.1|1.2|1.3|2|2.1|2.2|3|3.1|3.2|4|4.1";
/** The code of CapEnc_OpenParams for one of them. */
std::optional<uint32_t> parse_level(std::string_view text);

/** The values of --sound with a special meaning; any other value names a source. */
inline constexpr const char* sound_words = "desktop|microphone|both|none";

/** The orders of the command "control". */
inline constexpr const char* control_orders = "stop|pause|resume|save|status";

using Seconds = std::chrono::duration<double>;

/** Options that several commands share. */
struct CommonOptions {
    std::string output;
    /** a value of ZU3_DISPLAY, or an X display; empty = as the environment says */
    std::string display;
    bool overwrite = false;
    bool verbose = false;
    /** one of sound_words or a source's name; empty = as ZU3_SOUND says */
    std::string sound;
    /** the desktop portal asks for a screen although one was granted before */
    bool ask = false;
    /** nullopt = until a stop is requested */
    std::optional<Seconds> time;
};

/** Options of the commands that capture the screen. */
struct ScreenOptions : CommonOptions {
    std::optional<Size> size;
    /** which part of the screen; not given = as the environment says */
    std::optional<common::ScreenPart> part;
    /** --no-pointer was not given */
    bool pointer = true;
};

struct RecordOptions : ScreenOptions {
    uint32_t fps = 30;
    /** units of 1048576 bit/s, 0 = as much as the content needs */
    uint32_t constant_mbit = 0;
    uint32_t packet_size = 188;
    bool audio = true;
    uint32_t slot = 0;
    /** empty = the display */
    std::string source;
    bool one_call = false;
    bool json = false;
    std::string status_file;
    /** bit/s */
    std::optional<uint32_t> bit_rate;
    /** x264's rate factor, 0 to 51 */
    std::optional<uint32_t> quality;
    /** of standard output: "mkv" or "ts"; empty = not given */
    std::string format;
    bool fragmented = false;
    bool control = false;
    /** seconds to count down before the recording */
    uint32_t countdown = 0;
    /** by a desktop notification at the end */
    bool notify = false;
};

/** `output` is a folder, `overwrite` is unused. */
struct ReplayOptions : ScreenOptions {
    /** kept in memory */
    Seconds last{60};
    uint32_t fps = 30;
    bool audio = true;
    /** bit/s */
    std::optional<uint32_t> bit_rate;
    /** x264's rate factor, 0 to 51 */
    std::optional<uint32_t> quality;
    bool json = false;
    std::string status_file;
    bool control = false;
    /** by a desktop notification after each save */
    bool notify = false;
};

struct WatermarkOptions {
    /** empty = none */
    std::string image;
    Position at{16, 16};
    uint32_t opacity = 255;
};

struct StreamOptions : ScreenOptions {
    uint32_t fps = 30;
    /** bit/s */
    std::optional<uint32_t> bit_rate;
    /** x264's rate factor, 0 to 51; overrides the bit rate */
    std::optional<uint32_t> quality;
    /** bit/s that a constant quality does not exceed */
    uint32_t ceiling = common::greatest_bit_rate;
    /** of a still picture at constant quality; the stream goes into a file */
    bool rare_key_frames = false;
    /** code of CapEnc_OpenParams, 0 = the encoder's choice */
    uint32_t profile = 0;
    /** the same */
    uint32_t level = 0;
    bool osd = false;
    WatermarkOptions watermark;
    bool control = false;
};

struct ShotOptions : ScreenOptions {
    /** Cap_OutputFmt_e */
    uint32_t format = 2;
    uint32_t count = 1;
    /** a count was given */
    bool numbered = false;
    std::chrono::milliseconds interval{1000};
    bool osd = false;
};

struct PcmOptions : CommonOptions {};
/** `display` and `time` are unused. */
struct RemuxOptions : CommonOptions {
    std::string input;
};
struct DevicesOptions {};
struct DoctorOptions : CommonOptions {};
struct ControlOptions {
    /** one of control_orders */
    std::string order;
    /** nullopt = the only recorder */
    std::optional<uint32_t> process;
};

/** The options of all commands: the parser fills them before the command is known. */
struct AllOptions {
    RecordOptions record;
    ReplayOptions replay;
    StreamOptions stream;
    ShotOptions shot;
    PcmOptions pcm;
    RemuxOptions remux;
    DevicesOptions devices;
    DoctorOptions doctor;
    ControlOptions control;
};

/** A command with its options. */
using Invocation =
    std::variant<RecordOptions, ReplayOptions, ControlOptions, StreamOptions, ShotOptions,
                 PcmOptions, RemuxOptions, DevicesOptions, DoctorOptions>;

/** Runs a command. Returns the program's exit code. */
using RunCommand = int (*)(const Invocation& invocation);

} // namespace client
