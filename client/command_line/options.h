#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <variant>

#include "command_line/option_values.h"

namespace client {

using Seconds = std::chrono::duration<double>;

/** Options that several commands share. */
struct CommonOptions {
    std::string output;
    /** empty = the DISPLAY of the environment */
    std::string display;
    bool overwrite = false;
    bool verbose = false;
    /** nullopt = until a stop is requested */
    std::optional<Seconds> time;
};

struct RecordOptions : CommonOptions {
    std::optional<Size> size;
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
};

struct WatermarkOptions {
    /** empty = none */
    std::string image;
    Position at{16, 16};
    uint32_t opacity = 255;
};

struct StreamOptions : CommonOptions {
    std::optional<Size> size;
    uint32_t fps = 30;
    /** bit/s */
    std::optional<uint32_t> bit_rate;
    /** x264's rate factor, 0 to 51; overrides the bit rate */
    std::optional<uint32_t> quality;
    /** code of CapEnc_OpenParams, 0 = the encoder's choice */
    uint32_t profile = 0;
    /** the same */
    uint32_t level = 0;
    bool osd = false;
    WatermarkOptions watermark;
    bool control = false;
};

struct ShotOptions : CommonOptions {
    std::optional<Size> size;
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

/**
 * A command with its options, or an exit code if the command line has been answered already (help,
 * version, error).
 */
using Invocation = std::variant<int, RecordOptions, StreamOptions, ShotOptions, PcmOptions,
                                RemuxOptions, DevicesOptions, DoctorOptions>;

} // namespace client
