#include "command_line.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "command_options.h"
#include "exit_code.h"
#include "messages.h"
#include "statistics.h"

namespace client {
namespace {

std::string version_text()
{
    const char* platform = platform_sentence();
    return std::string("screenrecord " SCREENRECORD_VERSION "\n") +
           (platform ? platform : "platform unknown");
}

constexpr const char* exit_codes =
    "Exit codes:\n"
    "  0  complete\n"
    "  1  failed, no usable file was made\n"
    "  2  the command line is wrong\n"
    "  3  ended early (disk full, display gone) with a usable file, or without all of its sound\n\n"
    "Environment:\n"
    "  DISPLAY           the X display that is captured\n"
    "  ZU3_DISPLAY       x11 or testcard (a moving test card, no display needed)\n"
    "  ZU3_AUDIO         pulse, tone (440 Hz) or silence\n"
    "  ANDROID_LOG_TAGS  what the library and the platform log on standard error, e.g. '*:D'\n"
    "  NO_COLOR          set to anything: no colours";

/** Everything that options are read into, while the command is not known yet. */
struct AllOptions {
    RecordOptions record;
    StreamOptions stream;
    ShotOptions shot;
    PcmOptions pcm;
    DevicesOptions devices;
    DoctorOptions doctor;
};

void define_program(CLI::App& app, AllOptions& all)
{
    app.require_subcommand(1);
    app.set_version_flag("--version", version_text);
    app.footer(exit_codes);
    define_record(
        *app.add_subcommand("record", "Record screen and sound into an MPEG transport-stream file."),
        all.record);
    define_stream(
        *app.add_subcommand("stream", "Write the screen as a raw H.264 stream, to a file or a pipe."),
        all.stream);
    define_shot(*app.add_subcommand("shot", "Take screenshots."), all.shot);
    define_pcm(*app.add_subcommand("pcm", "Record the desktop's sound, uncompressed."), all.pcm);
    app.add_subcommand("devices", "List displays and sound sources.");
    define_doctor(
        *app.add_subcommand("doctor", "Say what works on this machine and how to get what is missing."),
        all.doctor);
    for (CLI::App* command : app.get_subcommands({}))
        command->footer(exit_codes);
}

Invocation chosen(const CLI::App& app, const AllOptions& all)
{
    const std::string name = app.get_subcommands().front()->get_name();
    if (name == "record")
        return all.record;
    if (name == "stream")
        return all.stream;
    if (name == "shot")
        return all.shot;
    if (name == "pcm")
        return all.pcm;
    if (name == "devices")
        return all.devices;
    return all.doctor;
}

std::string what_is_wrong(const CLI::App& app, const CLI::ParseError& error)
{
    const std::vector<std::string> unknown = app.remaining();
    if (app.get_subcommands().empty() && !unknown.empty())
        return "there is no command '" + unknown.front() + "'";
    return error.what();
}

} // namespace

Invocation read_command_line(int argc, char** argv)
{
    CLI::App app("screenrecord captures the screen and the sound of this machine.", "screenrecord");
    AllOptions all;
    define_program(app, all);
    try {
        app.parse(argc, argv);
        return chosen(app, all);
    } catch (const CLI::Success& answered) { // help or version
        app.exit(answered);
        std::cout.flush();
        return static_cast<int>(ExitCode::complete);
    } catch (const CLI::ParseError& error) {
        say(what_is_wrong(app, error) + "; see 'screenrecord --help'");
        return static_cast<int>(ExitCode::usage);
    }
}

} // namespace client
