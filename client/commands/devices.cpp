#include "commands/commands.h"
#include "machine/display.h"
#include "machine/host.h"
#include "process/messages.h"
#include "running/attended_work.h"

namespace client {
namespace {

std::string display_line(const DisplayInfo& display)
{
    std::string line = format_text("display  %s  %ux%u", display.name.c_str(), display.size.width,
                                   display.size.height);
    line +=
        display.refresh_hz > 0 ? format_text("  %.2f Hz", display.refresh_hz) : "  no refresh rate";
    return display.problem.empty() ? line : line + "  cannot be captured: " + display.problem;
}

constexpr const char* stopped = "cannot list the devices: stopped before all had answered";

void print_display(const std::string& name, CommandContext& context)
{
    ProgramOutput& output = context.output;
    const auto display = attended(context.signals, stopped, [name] { return probe_display(name); });
    if (!display)
        return output.print_line("display  " + name + "  cannot be reached");
    output.print_line(display_line(*display));
    for (const common::X11Monitor& monitor : display->monitors)
        output.print_line("monitor  " + monitor.name + "  " + common::region_text(monitor.region) +
                          (monitor.primary ? "  (primary)" : ""));
    if (display->monitors.size() > 1)
        print_message("a recording of " + name +
                      " shows all its monitors; --monitor NAME or --monitor primary chooses one");
}

std::string output_line(const HostOutput& output)
{
    std::string line = format_text("output   %s  %ux%u  scale %g", output.name.c_str(),
                                   output.width, output.height, output.scale);
    line +=
        output.refresh_hz > 0 ? format_text("  %.2f Hz", output.refresh_hz) : "  no refresh rate";
    if (output.degrees > 0)
        line += format_text("  turned %u degrees clockwise", 360 - output.degrees);
    if (output.mirrored)
        line += "  mirrored";
    if (!output.description.empty())
        line += "  " + output.description;
    return output.recorded ? line + "  (recorded)" : line;
}

std::string source_line(const SoundSource& source)
{
    std::string line = format_text("sound    %s  %u Hz, %u channels  %s", source.name.c_str(),
                                   source.sample_rate, source.channels, source.description.c_str());
    if (source.microphone)
        line += "  (microphone)";
    return source.recorded ? line + "  (recorded)" : line;
}

} // namespace

ExitCode run(const DevicesOptions&, CommandContext& context)
{
    const auto outputs = attended(context.signals, stopped, list_outputs);
    for (const HostOutput& output : outputs)
        context.output.print_line(output_line(output));
    if (outputs.size() > 1)
        print_message("a recording shows one output; --monitor NAME chooses it");
    for (const std::string& name : known_displays())
        print_display(name, context);
    if (outputs.empty() && known_displays().empty())
        print_message(
            "there is no Wayland session and no X display on this machine, and DISPLAY is not set");
    const auto sources = attended(context.signals, stopped, list_sound_sources);
    if (!sources)
        print_message("no sound server answers; recordings are silent");
    else
        for (const SoundSource& source : *sources)
            context.output.print_line(source_line(source));
    return ExitCode::complete;
}

} // namespace client
