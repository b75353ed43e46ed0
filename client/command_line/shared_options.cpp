#include "command_line/shared_options.h"

#include <algorithm>
#include <CLI/CLI.hpp>

#include "process/messages.h"
#include <common/encoder_limits.h>

namespace client {
namespace {

/** An option that names a part of the screen. */
CLI::Option* define_part(CLI::App& command, const char* name, const char* type, const char* text,
                         ScreenOptions& options,
                         std::function<std::string(const std::string&, common::ScreenPart&)> parse)
{
    return define_value(
        command, name, type, text, [&options, parse = std::move(parse)](const std::string& given) {
            return parse(given, options.part ? *options.part : options.part.emplace());
        });
}

} // namespace

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
    if (audio)
        command.add_flag_callback(
            "--no-audio", [audio] { *audio = false; }, "record no sound");
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

void define_parts(CLI::App& command, ScreenOptions& options)
{
    auto* region = define_part(
        command, "--region", "WxH+X+Y",
        "only this part of the screen, or of the monitor that --monitor names, such as 640x360+100+50",
        options, [](const std::string& given, common::ScreenPart& part) {
            part.region = common::parse_region(given);
            return part.region ? "" : "is not a region such as 640x360+100+50";
        });
    auto* monitor =
        define_part(command, "--monitor", "NAME|primary",
                    "only this monitor or Wayland output, as 'screenrecord devices' names it",
                    options, [](const std::string& given, common::ScreenPart& part) {
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
    window->excludes(region, monitor);
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

void define_status(CLI::App& command, bool& json, std::string& status_file)
{
    command.add_flag("--json", json, "print one JSON object per second on standard error");
    command
        .add_option("--status-file", status_file,
                    "write the same object to this file once per second")
        ->type_name("FILE");
}

} // namespace client
