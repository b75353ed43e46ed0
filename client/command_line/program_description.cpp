#include "command_line/program_description.h"

#include <algorithm>
#include <array>
#include <CLI/CLI.hpp>
#include <functional>

#include "files/output_file.h"
#include "files/output_format.h"
#include "machine/host.h"
#include "process/messages.h"
#include <common/encoder_limits.h>
#include <screenrecord/screenrecord.h>

namespace client {
namespace {

/**
 * Defines an option with a value.
 * @param parse stores the value; returns why it refuses it, as the end of a sentence, or ""
 */
CLI::Option* define_value(CLI::App& command, const char* names, const char* type, const char* text,
                          std::function<std::string(const std::string&)> parse)
{
    // a positional has no dashes
    const size_t dashes = std::string(names).find("--");
    const std::string long_name =
        dashes == std::string::npos ? names : std::string(names).substr(dashes);
    return command
        .add_option_function<std::string>(
            names,
            [parse = std::move(parse), long_name](const std::string& given) {
                const std::string problem = parse(given);
                if (!problem.empty())
                    throw CLI::ValidationError(long_name, "'" + given + "' " + problem);
            },
            text)
        ->type_name(type);
}

CLI::Option* define_number(CLI::App& command, const char* names, const char* type, const char* text,
                           uint32_t low, uint32_t high, std::function<void(uint32_t)> set)
{
    return define_value(
        command, names, type, text, [low, high, set = std::move(set)](const std::string& given) {
            const auto number = parse_number(given);
            if (!number || *number < low || *number > high)
                return format_text("is not a whole number from %u to %u", low, high);
            set(*number);
            return std::string();
        });
}

/** @param choices as help shows them: "a|b|c" */
CLI::Option* define_choice(CLI::App& command, const char* names, const char* choices,
                           const char* text, std::function<void(const std::string&)> set)
{
    return define_value(command, names, choices, text,
                        [choices, set = std::move(set)](const std::string& given) {
                            const std::vector<std::string> words = choices_of(choices);
                            if (std::find(words.begin(), words.end(), given) == words.end())
                                return "is not " + listed(words, "or");
                            set(given);
                            return std::string();
                        });
}

CLI::Option* define_output(CLI::App& command, CommonOptions& options, const char* type,
                           const char* text)
{
    CLI::Option* const output =
        command.add_option("-o,--output", options.output, text)->required()->type_name(type);
    command.add_flag("-y,--overwrite", options.overwrite, "overwrite a file that exists");
    command.add_flag("-v,--verbose", options.verbose,
                     "print the chosen settings and, after a failure, the library's log");
    return output;
}

void define_display(CLI::App& command, CommonOptions& options)
{
    command
        .add_option(
            "--display", options.display,
            "the source: an X display such as :0, or x11, wayland, portal or testcard (see ZU3_DISPLAY)")
        ->type_name("NAME");
}

void define_ask(CLI::App& command, CommonOptions& options)
{
    command.add_flag("--ask", options.ask,
                     "have the desktop portal ask again which screen or window to share");
}

/** @param audio becomes false with "none"; null = none is refused later */
void define_sound(CLI::App& command, CommonOptions& options, bool* audio)
{
    define_value(
        command, "--sound", "desktop|microphone|both|NAME|none",
        "the sound to record: what the desktop plays, the default microphone, both mixed, the source NAME as 'devices' lists it, or none; default: ZU3_SOUND, or desktop",
        [&options, audio](const std::string& given) {
            options.sound = given;
            if (audio)
                *audio = given != "none";
            return given.empty() ? "is no sound source" : "";
        });
}

void define_time(CLI::App& command, CommonOptions& options)
{
    define_value(
        command, "-t,--time", "TIME",
        "stop after this time, such as 90, 1m30s or 00:01:30; default: at SIGINT (Ctrl-C), SIGTERM or SIGHUP",
        [&options](const std::string& given) {
            options.time = parse_time(given);
            return options.time
                       ? ""
                       : "is not a time, such as 10, 90s, 1m30s or 00:01:30, above 0 and up to 10000000 seconds";
        });
}

void define_size(CLI::App& command, std::optional<Size>& size, const char* text)
{
    define_value(command, "-s,--size", "WxH", text,
                 [&size](const std::string& given) -> std::string {
                     size = parse_size(given);
                     if (!size)
                         return "is not a size such as 1280x720";
                     const std::string problem = size_problem(*size);
                     return problem.empty() ? "" : "cannot be captured: " + problem;
                 });
}

/** The option that names a part of the screen; one at most is given. */
CLI::Option* define_part(CLI::App& command, const char* name, const char* type, const char* text,
                         ScreenOptions& options,
                         std::function<std::string(const std::string&, common::ScreenPart&)> parse)
{
    return define_value(command, name, type, text,
                        [&options, parse = std::move(parse)](const std::string& given) {
                            return parse(given, options.part.emplace());
                        });
}

void define_parts(CLI::App& command, ScreenOptions& options)
{
    auto* region = define_part(
        command, "--region", "WxH+X+Y", "only this part of the screen, such as 640x360+100+50",
        options, [](const std::string& given, common::ScreenPart& part) {
            part.region = common::parse_region(given);
            return part.region ? "" : "is not a region such as 640x360+100+50";
        });
    auto* monitor = define_part(command, "--monitor", "NAME|primary",
                                "only this monitor, as 'screenrecord devices' names it", options,
                                [](const std::string& given, common::ScreenPart& part) {
                                    part.monitor = given;
                                    return given.empty() ? "is not a monitor's name" : "";
                                });
    auto* window = define_part(
        command, "--window", "ID|active",
        "only this X11 window, even if it moves or is covered: its number (see xwininfo), or active for the one with the keyboard focus",
        options, [](const std::string& given, common::ScreenPart& part) {
            part.window = common::parse_window(given);
            return part.window ? "" : "is not active or a window's number such as 0x1c00003";
        });
    region->excludes(monitor, window);
    monitor->excludes(window);
}

void define_pointer(CLI::App& command, ScreenOptions& options)
{
    command.add_flag_callback(
        "--no-pointer", [&options] { options.pointer = false; }, "leave out the pointer");
}

void define_fps(CLI::App& command, uint32_t& fps)
{
    define_number(command, "-r,--fps", "FPS", "pictures per second, 1 to 120; default: 30", 1,
                  common::greatest_frame_rate, [&fps](uint32_t given) { fps = given; });
}

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

void define_bit_rate(CLI::App& command, std::optional<uint32_t>& bit_rate, const char* text)
{
    define_value(command, "-b,--bitrate", "RATE", text, [&bit_rate](const std::string& given) {
        bit_rate = parse_bit_rate(given);
        return bit_rate ? "" : std::string("is not ") + bit_rate_form;
    });
}

void define_quality(CLI::App& command, std::optional<uint32_t>& quality, const char* text)
{
    define_value(command, "--quality", "QUALITY", text, [&quality](const std::string& given) {
        quality = parse_quality(given);
        return quality ? "" : "is not low, medium, high or a whole number from 0 to 51";
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

void define_status(CLI::App& command, bool& json, std::string& status_file)
{
    command.add_flag("--json", json, "print one JSON object per second on standard error");
    command
        .add_option("--status-file", status_file,
                    "write the same object to this file once per second")
        ->type_name("FILE");
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
    command.add_flag_callback(
        "--no-audio", [&options] { options.audio = false; }, "record no sound");
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
        "read commands from standard input, one per line: bitrate RATE, keyframe, pause, resume, watermark FILE [X,Y [OPACITY]], watermark none, stop; answers go to standard error; a terminal is always read",
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

std::string version_text()
{
    const char* platform = platform_sentence();
    return std::string("screenrecord " SCREENRECORD_VERSION "\n") +
           (platform ? platform : "platform unknown");
}

constexpr Term signal_terms[] = {
    {"INT, TERM, HUP",
     "stop: complete the file and print its path; under nohup, HUP stays ignored"},
    {"USR1, USR2",
     "pause and resume; a recording into a .ts file cannot pause: it prints a message and continues; a replay saves on USR1"},
};
constexpr Term exit_codes[] = {
    {"0", "complete"},
    {"1", "failed; there is no usable file"},
    {"2", "the command line is wrong or the output cannot be written; nothing was recorded"},
    {"3",
     "a usable file that ended early (disk full, display gone, window closed) or lacks pictures (disk too slow) or sound; or another program removed, replaced or cut the file"},
};
constexpr Term environment_terms[] = {
    {"WAYLAND_DISPLAY", "the Wayland session to capture; without one, the X display is captured"},
    {"DISPLAY", "the X display to capture"},
    {"ZU3_DISPLAY",
     "x11, wayland (copies of the compositor), portal (asks for a screen or window) or testcard (a moving test card, no display needed); default: wayland or portal in a Wayland session, otherwise x11"},
    {"ZU3_ASK", "1 = as --ask"},
    {"ZU3_REGION", "the part of the screen to capture, like --region"},
    {"ZU3_MONITOR", "the monitor to capture, like --monitor"},
    {"ZU3_WINDOW", "the X11 window to capture, like --window"},
    {"ZU3_POINTER", "0 leaves the pointer out of recordings and streams, like --no-pointer"},
    {"ZU3_AUDIO", "pulse, tone (440 Hz) or silence"},
    {"ZU3_SOUND", "desktop, microphone, both, none or the name of a sound source, as --sound"},
    {"ANDROID_LOG_TAGS", "log level of library and platform on standard error, e.g. '*:D'"},
    {"XDG_RUNTIME_DIR", "the folder of the socket by which 'control' finds a recorder"},
    {"XDG_VIDEOS_DIR",
     "the folder for recordings without -o; default: that of user-dirs.dirs, or ~/Videos"},
    {"NO_COLOR", "no colours if set and not empty"},
    {"TERM", "no status line if dumb or not set: such a terminal cannot refresh it"},
};
constexpr std::array<Section, 3> all_sections = {
    {{"Signals", signal_terms}, {"Exit codes", exit_codes}, {"Environment", environment_terms}}};

std::string footer()
{
    std::string text;
    for (const Section& section : all_sections) {
        text += (text.empty() ? "" : "\n") + std::string(section.title) + ":\n";
        for (const Term& term : section.terms)
            text += format_text("  %-16s  %s\n", term.name, term.text);
    }
    text.pop_back();
    return text;
}

} // namespace

void describe_program(CLI::App& app, AllOptions& all)
{
    app.name("screenrecord");
    app.description("screenrecord captures the screen and the sound of this machine.");
    app.require_subcommand(1);
    app.set_help_flag("-h,--help", "print this help and exit");
    app.set_version_flag("--version", version_text, "print the version and exit");
    app.footer(footer());
    define_record(
        *app.add_subcommand(
            "record",
            "Record screen and sound into an MP4, Matroska or MPEG transport-stream file."),
        all.record);
    define_replay(*app.add_subcommand("replay",
                                      "Keep the last minute in memory, and save it to a file on "
                                      "SIGUSR1, the key s, or 'screenrecord control save'."),
                  all.replay);
    define_stream(*app.add_subcommand(
                      "stream", "Write the screen as a raw H.264 stream, to a file or a pipe."),
                  all.stream);
    define_shot(*app.add_subcommand("shot", "Take screenshots."), all.shot);
    define_pcm(*app.add_subcommand("pcm", "Record sound, uncompressed."), all.pcm);
    define_remux(*app.add_subcommand("remux",
                                     "Copy a recording into an MP4 or Matroska file without "
                                     "encoding it again: screenrecord remux FILE.ts FILE.mp4"),
                 all.remux);
    app.add_subcommand("devices", "List outputs, displays and sound sources.");
    define_doctor(*app.add_subcommand(
                      "doctor", "Check this machine, and say how to install what is missing."),
                  all.doctor);
    define_control(
        *app.add_subcommand("control",
                            "Control your running recorder, for example from a desktop shortcut: "
                            "screenrecord control stop|pause|resume|save|status"),
        all.control);
    app.add_subcommand(help_command, "Print the help of the given command or of the program.");
    app.add_subcommand("version", "Print the version.")->callback([] {
        throw CLI::CallForVersion(version_text(), 0);
    });
}

std::span<const Section> sections()
{
    return all_sections;
}

} // namespace client
