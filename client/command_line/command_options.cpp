#include "command_line/command_options.h"

#include <algorithm>
#include <CLI/CLI.hpp>

#include "command_line/shared_options.h"
#include <screenrecord/screenrecord.h>

namespace client {
namespace {

void define_rate(CLI::App& command, RecordOptions& options)
{
    define_value(
        command, "--rate", "MBIT",
        "constant rate of a .ts file, 1 to 4 in units of 1048576 bit/s; default: as much as the content needs",
        [&options](const std::string& given) -> std::string {
            const auto rate = parse_number(given);
            if (!rate || *rate < 1)
                return "is not a whole number from 1 to 4";
            options.constant_mbit = *rate;
            return *rate <= 4
                       ? ""
                       : "is above 4: the library's writer moves at most 64 KiB every 100 ms, 5.24 Mbit/s including sound and overhead";
        });
}

uint32_t format_code(const std::string& name)
{
    if (name == "yuyv")
        return E_CAP_OUTPUT_FMT_YUYV;
    if (name == "rgb565")
        return E_CAP_OUTPUT_FMT_RGB565;
    return name == "nv12" ? E_CAP_OUTPUT_FMT_NV12 : E_CAP_OUTPUT_FMT_BGRA;
}

void define_encoder(CLI::App& command, StreamOptions& options)
{
    define_bit_rate(
        command, options.bit_rate,
        "bits per second, with k (1000) or M (1000000); default: chosen by size and frame rate");
    define_quality(command, options.quality,
                   "constant quality instead of a bit rate: low, medium, high, or 0 (best) to 51");
    define_choice(
        command, "--profile", "baseline|main", "H.264 profile; default: the encoder's choice",
        [&options](const std::string& name) { options.profile = name == "baseline" ? 1 : 2; });
    define_choice(command, "--level", level_names, "H.264 level; default: the encoder's choice",
                  [&options](const std::string& name) { options.level = *parse_level(name); });
}

void define_watermark(CLI::App& command, WatermarkOptions& options)
{
    auto* image = command
                      .add_option("--watermark", options.image,
                                  "picture to draw into the stream, with its alpha")
                      ->type_name("IMAGE.png");
    define_value(command, "--at", "X,Y",
                 "its top left corner in the stream's picture; default: 16,16",
                 [&options](const std::string& given) {
                     const auto at = parse_position(given);
                     options.at = at.value_or(options.at);
                     return at ? "" : "is not a position such as 16,16";
                 })
        ->needs(image);
    define_number(command, "--opacity", "N",
                  "0 (invisible) to 255 (the picture's alpha unchanged); default: 255", 0, 255,
                  [&options](uint32_t given) { options.opacity = given; })
        ->needs(image);
}

/** The options of pictures that follow one another. */
template <typename Options> void define_pictures(CLI::App& command, Options& options)
{
    define_size(command, options.size,
                "picture size, even, 64x64 to 3840x2160; default: that of the captured part");
    define_parts(command, options);
    define_pointer(command, options);
    define_fps(command, options.fps);
}

void define_last(CLI::App& command, ReplayOptions& options)
{
    define_value(
        command, "--last", "TIME",
        "keep this much, such as 30 or 2m; default: 60 s. A saved file begins at most a second earlier",
        [&options](const std::string& given) -> std::string {
            const auto last = parse_time(given);
            options.last = last.value_or(options.last);
            return last && last->count() >= 1 && last->count() <= 3600
                       ? ""
                       : "is not a time from 1 s to 1 h, such as 60s or 2m30s";
        });
}

} // namespace

void define_record(CLI::App& command, RecordOptions& options)
{
    define_output(
        command, options, "FILE.mp4|FILE.mkv|FILE.ts|-",
        "file to record into, its ending chooses the format, or - for standard output; default: an MP4 file named by date and time in the videos folder (XDG_VIDEOS_DIR) or the current folder")
        ->required(false);
    define_pictures(command, options);
    define_time(command, options);
    define_quality(
        command, options.quality,
        "constant quality: low (0.6 to 0.9 of medium's bits), medium, high (1.1 to 2.1 times medium's), or x264's rate factor, 0 (best) to 51; default: medium, which is 22. A .ts file has at most 4.5 Mbit/s of video");
    define_bit_rate(
        command, options.bit_rate,
        "bits per second instead of a quality, with k (1000) or M (1000000); a .ts file has at most 4.5M");
    command.add_flag(
        "--fragmented", options.fragmented,
        "leave an MP4 file in fragments; do not rewrite it at the end with its index in front");
    define_choice(command, "--format", "mkv|ts", "format of standard output; default: mkv",
                  [&options](const std::string& name) { options.format = name; });
    define_choice(
        command, "--control", "-",
        "read commands from standard input, one per line: pause, resume, status, stop; answers go to standard error; not for a .ts file. Without it, the key p pauses and resumes, if standard input and standard error are a terminal",
        [&options](const std::string&) { options.control = true; });
    define_rate(command, options);
    define_choice(
        command, "--packet-size", "188|192",
        "of a .ts file: 192 puts an arrival time before each packet of 188 bytes; default: 188",
        [&options](const std::string& size) { options.packet_size = size == "192" ? 192 : 188; });
    define_sound(command, options, &options.audio);
    define_display(command, options);
    define_ask(command, options);
    define_choice(command, "--slot", "0|1",
                  "recording slot of the library; 1 needs --source; default: 0",
                  [&options](const std::string& slot) { options.slot = slot == "1" ? 1 : 0; });
    command
        .add_option(
            "--source", options.source,
            "encode this file of raw NV12 pictures instead of the screen, and stop at its end; in each picture the stride is the width rounded up to 16, the height is rounded up to 32 lines, and chroma follows luma")
        ->type_name("FILE.nv12");
    define_number(command, "--countdown", "SECONDS", "count down before the recording, 1 to 3600",
                  1, 3600, [&options](uint32_t given) { options.countdown = given; });
    command.add_flag("--notify", options.notify,
                     "show a desktop notification at the end, if a notification service answers");
    command.add_flag("--one-call", options.one_call, "use the library's one-call interface");
    define_status(command, options.json, options.status_file);
}

void define_replay(CLI::App& command, ReplayOptions& options)
{
    command
        .add_option("-o,--output", options.output,
                    "folder for the saved files, MP4 named by date and time; default: the videos "
                    "folder (XDG_VIDEOS_DIR) or the current folder")
        ->type_name("FOLDER");
    define_last(command, options);
    command.add_flag("-v,--verbose", options.verbose,
                     "print the chosen settings and, after a failure, the library's log");
    define_pictures(command, options);
    define_time(command, options);
    define_quality(
        command, options.quality,
        "constant quality: low, medium, high, or x264's rate factor, 0 (best) to 51; default: medium, which is 22; up to twice the default bit rate of 'stream'");
    define_bit_rate(command, options.bit_rate,
                    "bits per second instead of a quality, with k (1000) or M (1000000)");
    define_choice(
        command, "--control", "-",
        "read commands from standard input, one per line: save, status, stop; answers go to standard error. Without it, the key s saves, if standard input and standard error are a terminal",
        [&options](const std::string&) { options.control = true; });
    define_sound(command, options, &options.audio);
    define_display(command, options);
    define_ask(command, options);
    command.add_flag(
        "--notify", options.notify,
        "show a desktop notification after each save, if a notification service answers");
    define_status(command, options.json, options.status_file);
}

void define_stream(CLI::App& command, StreamOptions& options)
{
    define_output(command, options, "FILE.h264|-", "file, or - for standard output");
    define_pictures(command, options);
    define_encoder(command, options);
    command.add_flag(
        "--osd", options.osd,
        "include the device's overlay; a stream of an X display shows the pointer without it");
    define_time(command, options);
    define_watermark(command, options.watermark);
    define_choice(
        command, "--control", "-",
        "read commands from standard input, one per line: bitrate RATE, keyframe, pause, resume, watermark FILE [X,Y [OPACITY]], watermark none, status, stop; answers go to standard error; a terminal is always read",
        [&options](const std::string&) { options.control = true; });
    define_display(command, options);
    define_ask(command, options);
}

void define_shot(CLI::App& command, ShotOptions& options)
{
    define_output(
        command, options, "FILE.png|-",
        "picture to write, or - for a PNG on standard output; a name ending in .raw receives the captured bytes unconverted");
    define_size(command, options.size, "picture size; default: that of the captured part");
    define_parts(command, options);
    define_choice(command, "--format", "bgra|rgb565|yuyv|nv12",
                  "pixel format to capture, before the conversion to PNG; default: bgra",
                  [&options](const std::string& name) { options.format = format_code(name); });
    auto* count = define_number(command, "-n,--count", "COUNT",
                                "take this many screenshots and number the files: shot-001.png ...",
                                1, 999999, [&options](uint32_t given) {
                                    options.count = given;
                                    options.numbered = true;
                                });
    define_number(command, "--interval", "MS",
                  "milliseconds between two screenshots; default: 1000", 0, 86400000,
                  [&options](uint32_t ms) { options.interval = std::chrono::milliseconds(ms); })
        ->needs(count);
    command.add_flag("--pointer,--osd", options.osd, "include the pointer");
    define_display(command, options);
    define_ask(command, options);
}

void define_pcm(CLI::App& command, PcmOptions& options)
{
    define_output(command, options, "FILE.wav|-",
                  "WAV file, or - for raw samples on standard output");
    define_time(command, options);
    define_sound(command, options, nullptr);
}

void define_control(CLI::App& command, ControlOptions& options)
{
    define_value(
        command, "order", control_orders,
        "stop, pause or resume the recorder; save what a replay keeps, and print the file's "
        "path; print the status as a JSON object",
        [&options](const std::string& given) -> std::string {
            const std::vector<std::string> words = choices_of(control_orders);
            options.order = given;
            return std::find(words.begin(), words.end(), given) == words.end()
                       ? "is not " + listed(words, "or")
                       : "";
        })
        ->required();
    define_number(command, "--pid", "PID", "the recorder's process, if several run", 1, INT32_MAX,
                  [&options](uint32_t given) { options.process = given; });
}

void define_remux(CLI::App& command, RemuxOptions& options)
{
    command.add_option("input", options.input, "the recording to read")
        ->required()
        ->type_name("FILE.ts");
    command.add_option("output", options.output, "the file to write")
        ->required()
        ->type_name("FILE.mp4|FILE.mkv");
    command.add_flag("-y,--overwrite", options.overwrite, "overwrite a file that exists");
}

void define_doctor(CLI::App& command, DoctorOptions& options)
{
    define_display(command, options);
}

} // namespace client
