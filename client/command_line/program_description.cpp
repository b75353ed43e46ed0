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
     "end well: the file is completed, and its path printed; a HUP that nohup ignores stays so"},
    {"USR1, USR2", "pause and resume; record of a .ts file says that it cannot, and goes on"},
};
constexpr Term exit_codes[] = {
    {"0", "complete"},
    {"1", "failed, no usable file was made"},
    {"2",
     "the command line is wrong, or its output cannot be written, before anything was recorded"},
    {"3",
     "ended early (disk full, display gone) with a usable file, or without all of its pictures (disk too slow) or sound; or others removed, replaced or cut the file meanwhile"},
};
constexpr Term environment_terms[] = {
    {"DISPLAY", "the X display that is captured"},
    {"ZU3_DISPLAY", "x11 or testcard (a moving test card, no display needed)"},
    {"ZU3_AUDIO", "pulse, tone (440 Hz) or silence"},
    {"ANDROID_LOG_TAGS", "what the library and the platform log on standard error, e.g. '*:D'"},
    {"XDG_VIDEOS_DIR",
     "the folder of a recording without -o; else that of user-dirs.dirs, or ~/Videos"},
    {"NO_COLOR", "set and not empty: no colours"},
    {"TERM", "dumb or not set: no line of status, which such a terminal cannot refresh"},
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
    app.set_help_flag("-h,--help", "say this and end");
    app.set_version_flag("--version", version_text, "say which version this is and end");
    app.footer(footer());
    define_record(
        *app.add_subcommand(
            "record",
            "Record screen and sound into an MP4, Matroska or MPEG transport-stream file."),
        all.record);
    define_stream(*app.add_subcommand(
                      "stream", "Write the screen as a raw H.264 stream, to a file or a pipe."),
                  all.stream);
    define_shot(*app.add_subcommand("shot", "Take screenshots."), all.shot);
    define_pcm(*app.add_subcommand("pcm", "Record the desktop's sound, uncompressed."), all.pcm);
    define_remux(*app.add_subcommand("remux", "Copy a recording into an MP4 or Matroska file as it "
                                              "is: screenrecord remux FILE.ts FILE.mp4"),
                 all.remux);
    app.add_subcommand("devices", "List displays and sound sources.");
    define_doctor(*app.add_subcommand(
                      "doctor", "Say what works on this machine and how to get what is missing."),
                  all.doctor);
    app.add_subcommand(help_command,
                       "Explain the command that is named behind it, or the program.");
    app.add_subcommand("version", "Say which version this is.")->callback([] {
        throw CLI::CallForVersion(version_text(), 0);
    });
}

std::span<const Section> sections()
{
    return all_sections;
}

} // namespace client
