#include "command_line/program_description.h"
#include "documentation/outline.h"

namespace client {
namespace {

/** Escapes text for roff: no dash becomes a hyphen, no line begins with a request. */
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
    "Captures an X11 or Wayland screen, encodes it as H.264, and writes a file that any player opens, or streams it.\n"
    "During a recording a terminal shows one line: time, frames, frames per second, dropped frames, file "
    "size, bit rate and sound level.\n"
    "A narrow terminal shows only time, size and rate.\n"
    "On a terminal, the key \\fBp\\fR pauses and resumes a recording into an MP4 or Matroska file.\n"
    "Standard output receives only the path of the finished file, or the stream or picture itself.\n"
    "A terminal and messages show control characters in names as \\ex1b; a pipe receives the path "
    "unchanged.\n"
    ".SH COMMANDS AND OPTIONS\n";

constexpr const char* tail =
    ".SH FILES\n"
    "A new file has mode 0600, regardless of the umask; an overwritten file keeps its mode.\n"
    "\\fB\\-y\\fR overwrites an ordinary file of the user. Symbolic links, and files and named pipes of other "
    "users, are refused. A named pipe of the user is written to once it has a reader, and "
    "the output ends in order when the reader leaves.\n"
    "A file is locked during its recording: a second screenrecord cannot write to it. If the file is renamed, "
    "the recording continues, and its new path is printed at the end; if it is removed, replaced or truncated, the "
    "recording ends.\n"
    ".SH STATUS\n"
    "\\fB\\-\\-json\\fR prints one object per second:\n"
    "\\fBstate\\fR (recording, paused or finishing; at the end finished or, without a usable file, failed), \\fBelapsed\\fR "
    "(seconds), \\fBframes\\fR, \\fBfps\\fR, "
    "\\fBdropped\\fR, \\fBfile_bytes\\fR, \\fBbits_per_second\\fR, \\fBsound_level\\fR (0 to 1), "
    "\\fBdisplay_answers\\fR (false while pictures are missing because the display does not answer), "
    "\\fBdisk_waiting\\fR (seconds that a write has waited for its disk or reader, 0 = none waits) and "
    "\\fBfinished_part\\fR (part of an MP4 file rewritten with its index in front, 0 to 1). A value that "
    "the platform does not count is null. A replay adds \\fBkept_seconds\\fR, \\fBkept_bytes\\fR and "
    "\\fBmost_kept_bytes\\fR (bytes in memory now, and their limit).\n"
    "\\fB\\-\\-status\\-file\\fR writes the same object, preceded by one with the state starting. Each "
    "object replaces the whole file.\n"
    ".SH EXAMPLES\n"
    ".TP\n.B screenrecord record \\-o meeting.mp4\nthe whole screen, with sound, until Ctrl\\-C\n"
    ".TP\n.B screenrecord record \\-o clip.mkv \\-s 1280x720 \\-r 60 \\-t 1m30s \\-\\-quality high\n"
    "ninety seconds at 60 frames per second\n"
    ".TP\n.B screenrecord record\nan MP4 file in the videos folder, named by date and time\n"
    ".TP\n.B screenrecord record \\-o \\- \\-\\-format ts | ffmpeg \\-i \\- \\-c copy \\-f flv "
    "rtmp://HOST/live/NAME\nsend screen and sound to a server\n"
    ".TP\n.B screenrecord remux old.ts old.mp4\ncopy a recording into another container\n"
    ".TP\n.B screenrecord stream \\-o \\- \\-b 2M | ffplay \\-\nwatch the stream while it is encoded\n"
    ".TP\n.B screenrecord replay \\-\\-last 60s \\-o ~/Videos\nkeep the last minute; the key s saves it\n"
    ".TP\n.B screenrecord control save\nlet that replay save a file, and print its path\n"
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
