#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <variant>

#include "option_values.h"

namespace client {

using Seconds = std::chrono::duration<double>;

/** What several commands share. */
struct CommonOptions {
    std::string output;
    std::string display; /**< empty = DISPLAY as it is */
    bool overwrite = false;
    bool verbose = false;
    std::optional<Seconds> time; /**< nothing = until a stop is asked for */
};

struct RecordOptions : CommonOptions {
    std::optional<Size> size;
    uint32_t fps = 30;
    uint32_t constant_mbit = 0; /**< units of 1048576 bit/s, 0 = as much as the content needs */
    uint32_t packet_size = 188;
    bool audio = true;
    uint32_t slot = 0;
    std::string source; /**< empty = the display */
    bool one_call = false;
    bool json = false;
    std::string status_file;
};

struct WatermarkOptions {
    std::string image; /**< empty = none */
    Position at{16, 16};
    uint32_t opacity = 255;
};

struct StreamOptions : CommonOptions {
    std::optional<Size> size;
    uint32_t fps = 30;
    std::optional<uint32_t> bit_rate; /**< bit/s */
    uint32_t profile = 0;             /**< code of CapEnc_OpenParams, 0 = the encoder's choice */
    uint32_t level = 0;               /**< the same */
    bool osd = false;
    WatermarkOptions watermark;
    bool control = false;
};

struct ShotOptions : CommonOptions {
    std::optional<Size> size;
    uint32_t format = 2; /**< Cap_OutputFmt_e */
    uint32_t count = 1;
    bool numbered = false; /**< a count was given */
    std::chrono::milliseconds interval{1000};
    bool osd = false;
};

struct PcmOptions : CommonOptions {};
struct DevicesOptions {};
struct DoctorOptions : CommonOptions {};

/** A command and its options; an exit code where the command line was already answered (help, version,
 * error). */
using Invocation =
    std::variant<int, RecordOptions, StreamOptions, ShotOptions, PcmOptions, DevicesOptions, DoctorOptions>;

/** Reads the command line. Prints help, version or what is wrong with it. */
Invocation read_command_line(int argc, char** argv);

} // namespace client
