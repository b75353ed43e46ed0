#include "command_line/program_description.h"

#include <array>
#include <CLI/CLI.hpp>

#include "command_line/command_options.h"
#include "machine/host.h"
#include "process/messages.h"

namespace client {
namespace {

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
    {"ZU3_REGION", "the part of the screen or of the monitor to capture, like --region"},
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
