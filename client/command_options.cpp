#include "command_options.h"

#include <CLI/CLI.hpp>

#include "messages.h"
#include "output_file.h"
#include "screenrecord/screenrecord.h"

namespace client {
namespace {

[[noreturn]] void refuse(const std::string& option, const std::string& reason)
{
    throw CLI::ValidationError(option, reason);
}

void define_output(CLI::App& command, CommonOptions& options, const char* type, const char* text)
{
    command.add_option("-o,--output", options.output, text)->required()->type_name(type);
    command.add_flag("-y,--overwrite", options.overwrite, "overwrite a file that exists");
    command.add_flag("-v,--verbose", options.verbose, "say what was chosen, and show the library's log");
}

void define_display(CLI::App& command, CommonOptions& options)
{
    command.add_option("--display", options.display, "X display to capture, instead of DISPLAY")
        ->type_name("NAME");
}

void define_time(CLI::App& command, CommonOptions& options)
{
    command
        .add_option_function<double>(
            "-t,--time",
            [&options](double seconds) {
                if (!(seconds > 0) || seconds > 1e7)
                    refuse("-t", "must be more than 0 and at most 10000000 seconds");
                options.time = Seconds(seconds);
            },
            "end after so many seconds; else at SIGINT (Ctrl-C), SIGTERM or SIGHUP")
        ->type_name("SECONDS");
}

void define_size(CLI::App& command, std::optional<Size>& size, const char* text)
{
    command
        .add_option_function<std::string>(
            "-s,--size",
            [&size](const std::string& given) {
                size = parse_size(given);
                if (!size)
                    refuse("-s", "'" + given + "' is no size such as 1280x720");
                const std::string problem = size_problem(*size);
                if (!problem.empty())
                    refuse("-s", "cannot capture " + given + ": " + problem);
            },
            text)
        ->type_name("WxH");
}

void define_fps(CLI::App& command, uint32_t& fps)
{
    command.add_option("-r,--fps", fps, "pictures per second, 1 to 120")
        ->check(CLI::Range(1u, 120u))
        ->capture_default_str()
        ->type_name("FPS");
}

void define_rate(CLI::App& command, RecordOptions& options)
{
    command
        .add_option_function<std::string>(
            "--rate",
            [&options](const std::string& given) {
                const auto rate = parse_number(given);
                if (!rate || *rate < 1)
                    refuse("--rate", "'" + given + "' is no whole number from 1 to 4");
                if (*rate > 4)
                    refuse("--rate",
                           "cannot write at " + given +
                               " Mbit/s: the library's writer moves at most 64 KiB every 100 ms, which is "
                               "5.24 Mbit/s with everything, so 4 is the greatest constant rate that it "
                               "keeps up with");
                options.constant_mbit = *rate;
            },
            "constant rate, 1 to 4 in units of 1048576 bit/s; else as much as the content needs")
        ->type_name("MBIT");
}

void check_record(const RecordOptions& options)
{
    if (options.output == "wifi")
        refuse("-o", "the name 'wifi' is reserved; './wifi' is a file");
    if (is_standard_output(options.output))
        refuse("-o", "a recording needs a file; 'screenrecord stream -o -' writes to standard output");
    if (!options.source.empty() && !options.size)
        refuse("--source", "needs -s, the size of the pictures in the file");
    if (options.source.ends_with(".ts"))
        refuse("--source",
               "a name that ends in .ts is taken for a transport stream, not for raw NV12 pictures");
    if (options.slot != 0 && options.source.empty() && !options.one_call)
        refuse("--slot",
               "cannot record the screen on slot 1: the library hands captured pictures to slot 0 only; "
               "slot 1 encodes a --source");
    if (options.one_call && (!options.source.empty() || options.slot != 0 || !options.audio))
        refuse("--one-call",
               "always records the screen with sound on slot 0: the interface has no such choice, so "
               "it goes with none of --source, --slot 1 and --no-audio");
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
    command
        .add_option_function<std::string>(
            "-b,--bitrate",
            [&options](const std::string& given) {
                options.bit_rate = parse_bit_rate(given);
                if (!options.bit_rate || *options.bit_rate < lowest_bit_rate)
                    refuse("-b", "'" + given + "' is no rate of at least 10k, such as 800k or 2.5M");
            },
            "bits per second, with k (1000) or M (1000000); else chosen by size and frame rate")
        ->type_name("RATE");
    command
        .add_option_function<std::string>(
            "--profile",
            [&options](const std::string& name) { options.profile = name == "baseline" ? 1 : 2; },
            "H.264 profile")
        ->check(CLI::IsMember({"baseline", "main"}));
    command
        .add_option_function<std::string>(
            "--level",
            [&options](const std::string& name) {
                const auto level = parse_level(name);
                if (!level)
                    refuse("--level", "'" + name + "' is none of 1 1b 1.1 1.2 1.3 2 2.1 2.2 3 3.1 3.2 4 4.1");
                options.level = *level;
            },
            "H.264 level, 1 to 4.1")
        ->type_name("LEVEL");
}

void define_watermark(CLI::App& command, WatermarkOptions& options)
{
    auto* image =
        command.add_option("--watermark", options.image, "picture to draw into the stream, with its alpha")
            ->type_name("IMAGE.png");
    command
        .add_option_function<std::string>(
            "--at",
            [&options](const std::string& given) {
                const auto at = parse_position(given);
                if (!at)
                    refuse("--at", "'" + given + "' is no position such as 16,16");
                options.at = *at;
            },
            "its top left corner in the stream's picture, default 16,16")
        ->type_name("X,Y")
        ->needs(image);
    command.add_option("--opacity", options.opacity, "0 (invisible) to 255 (as the picture's alpha says)")
        ->check(CLI::Range(0u, 255u))
        ->capture_default_str()
        ->type_name("N")
        ->needs(image);
}

} // namespace

void define_record(CLI::App& command, RecordOptions& options)
{
    define_output(command, options, "FILE.ts", "file to record into");
    define_size(command, options.size, "picture size, even, 64x64 to 3840x2160; else the display's own");
    define_fps(command, options.fps);
    define_time(command, options);
    define_rate(command, options);
    command
        .add_option("--packet-size", options.packet_size,
                    "188, or 192 with an arrival time before each packet")
        ->check(CLI::IsMember({188u, 192u}))
        ->capture_default_str();
    command.add_flag_callback(
        "--no-audio", [&options] { options.audio = false; }, "record no sound");
    define_display(command, options);
    command.add_option("--slot", options.slot, "recording slot of the library; 1 goes with --source only")
        ->check(CLI::IsMember({0u, 1u}))
        ->capture_default_str();
    command
        .add_option(
            "--source", options.source,
            "encode this file of raw NV12 pictures instead of the screen; lines of the width rounded up to "
            "16, the height rounded up to 32 lines, chroma behind; ends with the file")
        ->type_name("FILE.nv12");
    command.add_flag("--one-call", options.one_call, "use the library's one-call interface");
    command.add_flag("--json", options.json, "one JSON object a second on standard error");
    command
        .add_option("--status-file", options.status_file,
                    "write the same object into this file, once a second")
        ->type_name("FILE");
    command.callback([&options] { check_record(options); });
}

void define_stream(CLI::App& command, StreamOptions& options)
{
    define_output(command, options, "FILE.h264|-", "file, or - for standard output");
    define_size(command, options.size, "picture size; the encoder rounds it up to multiples of 16x32");
    define_fps(command, options.fps);
    define_encoder(command, options);
    command.add_flag("--osd", options.osd, "with the on-screen-display layer");
    define_time(command, options);
    define_watermark(command, options.watermark);
    command
        .add_option_function<std::string>(
            "--control", [&options](const std::string&) { options.control = true; },
            "take commands from standard input, one a line: bitrate RATE, keyframe, pause, resume, watermark "
            "FILE "
            "[X,Y [OPACITY]], watermark none, stop; answered on standard error. On a terminal always")
        ->check(CLI::IsMember({"-"}))
        ->type_name("-");
    define_display(command, options);
}

void define_shot(CLI::App& command, ShotOptions& options)
{
    define_output(command, options, "FILE.png",
                  "picture to write; a name ending in .raw gets the captured bytes as they are");
    define_size(command, options.size, "picture size; else the display's own");
    command
        .add_option_function<std::string>(
            "--format", [&options](const std::string& name) { options.format = format_code(name); },
            "what is captured, before it is converted to PNG")
        ->check(CLI::IsMember({"bgra", "rgb565", "yuyv", "nv12"}));
    auto* count = command
                      .add_option_function<uint32_t>(
                          "-n,--count",
                          [&options](uint32_t given) {
                              options.count = given;
                              options.numbered = true;
                          },
                          "take so many and number the files: shot-001.png ...")
                      ->check(CLI::Range(1u, 999999u))
                      ->type_name("COUNT");
    command
        .add_option_function<uint32_t>(
            "--interval", [&options](uint32_t ms) { options.interval = std::chrono::milliseconds(ms); },
            "milliseconds from one to the next, default 1000")
        ->check(CLI::Range(0u, 86400000u))
        ->type_name("MS")
        ->needs(count);
    command.add_flag("--osd", options.osd, "with the on-screen-display layer");
    define_display(command, options);
}

void define_pcm(CLI::App& command, PcmOptions& options)
{
    define_output(command, options, "FILE.wav|-", "WAV file, or - for raw samples on standard output");
    define_time(command, options);
}

void define_doctor(CLI::App& command, DoctorOptions& options)
{
    define_display(command, options);
}

} // namespace client
