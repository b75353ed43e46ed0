#include "commands/commands.h"
#include "machine/display.h"
#include "machine/host.h"
#include "process/messages.h"

namespace client {
namespace {

std::string display_line(const std::string& name)
{
    const auto display = probe_display(name);
    if (!display)
        return "display  " + name + "  cannot be reached";
    std::string line =
        format_text("display  %s  %ux%u", name.c_str(), display->size.width, display->size.height);
    line += display->refresh_hz > 0 ? format_text("  %.2f Hz", display->refresh_hz)
                                    : "  no refresh rate";
    return display->problem.empty() ? line : line + "  cannot be captured: " + display->problem;
}

std::string source_line(const SoundSource& source)
{
    std::string line = format_text("sound    %s  %u Hz, %u channels  %s", source.name.c_str(),
                                   source.sample_rate, source.channels, source.description.c_str());
    return source.recorded ? line + "  (recorded)" : line;
}

} // namespace

ExitCode run(const DevicesOptions&, CommandContext& context)
{
    for (const std::string& name : known_displays())
        context.output.print_line(display_line(name));
    if (known_displays().empty())
        print_message("there is no X display on this machine and DISPLAY is not set");
    const auto sources = list_sound_sources();
    if (!sources)
        print_message("no sound server answers; recordings are silent");
    else
        for (const SoundSource& source : *sources)
            context.output.print_line(source_line(source));
    return ExitCode::complete;
}

} // namespace client
