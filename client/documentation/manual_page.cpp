#include "command_line/program_description.h"
#include "documentation/outline.h"

namespace client {
namespace {

/** Text as roff takes it: no dash that becomes a hyphen, no line that begins with a request. */
std::string roff(const std::string& text)
{
    std::string made;
    for (const char c : text) {
        if (c == '\\')
            made += "\\e";
        else if (c == '-')
            made += "\\-";
        else if (c == '\'')
            made += "\\(aq";
        else
            made += c;
    }
    return made.starts_with('.') ? "\\&" + made : made;
}

std::string option_entry(const OptionOutline& option)
{
    std::string made = ".TP\n";
    if (!option.letter.empty())
        made += "\\fB\\-" + option.letter + "\\fR, ";
    made += "\\fB\\-\\-" + roff(option.name) + "\\fR";
    if (!option.value.empty())
        made += (option.choices.empty() ? " \\fI" : " \\fB") + roff(option.value) + "\\fR";
    return made + "\n" + roff(option.text) + (option.required ? " (required)" : "") + "\n";
}

std::string command_entry(const CommandOutline& command)
{
    std::string made =
        ".SS " +
        (command.name.empty() ? "Before a command" : roff("screenrecord " + command.name)) + "\n" +
        roff(command.text) + "\n";
    for (const OptionOutline& option : command.options)
        made += option_entry(option);
    return made;
}

constexpr const char* head =
    ".TH SCREENRECORD 1 \"\" \"screenrecord " SCREENRECORD_VERSION "\" \"User Commands\"\n"
    ".SH NAME\nscreenrecord \\- record the screen, its sound, streams and screenshots\n"
    ".SH SYNOPSIS\n"
    ".B screenrecord\n\\fICOMMAND\\fR [\\fIOPTIONS\\fR]\n"
    ".SH DESCRIPTION\n"
    "Captures an X display, encodes it as H.264, and writes a file that any player opens, or a stream.\n"
    "While it records, a terminal shows one line: time, frames, frames per second, dropped frames, file "
    "size, bit rate and sound level.\n"
    "A narrow terminal drops fields; time, size and rate stay longest.\n"
    "Standard output gets the path of the finished file, or the stream or picture itself, and nothing else.\n"
    "On a terminal and in messages, control characters in names are shown as \\ex1b; a pipe gets the path as "
    "it "
    "is.\n"
    ".SH COMMANDS AND OPTIONS\n";

constexpr const char* tail =
    ".SH FILES\n"
    "New files are private (mode 0600, whatever the umask); an overwritten file keeps its mode.\n"
    "With \\fB\\-y\\fR a regular file of yours is overwritten. A symbolic link, and a file or a named pipe "
    "of another user, is never written to; your own pipe is, as soon as it has a reader.\n"
    "A file is locked while it is recorded: a second screenrecord is refused. If it is renamed meanwhile, "
    "the "
    "recording goes on, and its new path is printed at the end; if it is removed, replaced or cut, the "
    "recording ends.\n"
    ".SH STATUS\n"
    "With \\fB\\-\\-json\\fR, an object a second:\n"
    "\\fBstate\\fR (recording; at the end finished or, without a usable file, failed), \\fBelapsed\\fR "
    "(seconds), \\fBframes\\fR, \\fBfps\\fR, "
    "\\fBdropped\\fR, \\fBfile_bytes\\fR, \\fBbits_per_second\\fR, \\fBsound_level\\fR (0 to 1), "
    "\\fBdisplay_answers\\fR (false while pictures are missing because the display does not answer), and "
    "\\fBdisk_waiting\\fR (seconds that a write has waited for its disk, 0 = none waits); null "
    "for what the platform does not count.\n"
    "The file of \\fB\\-\\-status\\-file\\fR has the same, and the state starting before, which "
    "\\fB\\-\\-json\\fR never says. It is replaced as a whole each time.\n"
    ".SH EXAMPLES\n"
    ".TP\n.B screenrecord record \\-o meeting.ts\nthe whole screen, with sound, until Ctrl\\-C\n"
    ".TP\n.B screenrecord record \\-o clip.ts \\-s 1280x720 \\-r 60 \\-t 10\nten seconds at 60 frames per "
    "second\n"
    ".TP\n.B screenrecord stream \\-o \\- \\-b 2M | ffplay \\-\nwatch it as it is encoded\n"
    ".TP\n.B screenrecord shot \\-o now.png\na screenshot\n"
    ".SH SEE ALSO\n.BR Xorg (1),\n.BR pulseaudio (1),\n.BR ffplay (1)\n";

} // namespace

std::string manual_page()
{
    std::string made = head;
    for (const CommandOutline& command : outline())
        made += command_entry(command);
    for (const Section& section : sections()) {
        made += ".SH " + roff(section.title) + "\n";
        for (const Term& term : section.terms)
            made += ".TP\n.B " + roff(term.name) + "\n" + roff(term.text) + "\n";
    }
    return made + tail;
}

} // namespace client
