#include "documentation/outline.h"

namespace client {
namespace {

std::string spellings(const OptionOutline& option, const char* between)
{
    return (option.letter.empty() ? "" : "-" + option.letter + between) + "--" + option.name;
}

std::string words_of(const CommandOutline& command)
{
    std::string words;
    for (const OptionOutline& option : command.options)
        words += (words.empty() ? "" : " ") + spellings(option, " ");
    return words;
}

/** The case of an option with a value. */
std::string value_case(const CommandOutline& command, const OptionOutline& option)
{
    std::string made =
        "        " + command.name + ":" +
        (option.letter.empty() ? "" : "-" + option.letter + " | " + command.name + ":") + "--" +
        option.name + ") ";
    if (option.takes_file)
        return made + "compopt -o filenames; COMPREPLY=($(compgen -f -- \"$word\")); return ;;\n";
    std::string words;
    for (const std::string& choice : option.choices)
        words += (words.empty() ? "" : " ") + choice;
    if (option.name == "display")
        words = "$(for socket in /tmp/.X11-unix/X*; do echo \":${socket##*/X}\"; done)";
    return made + "COMPREPLY=($(compgen -W \"" + words + "\" -- \"$word\")); return ;;\n";
}

} // namespace

std::string bash_completion()
{
    const std::vector<CommandOutline> commands = outline();
    std::string values, options, names;
    for (const CommandOutline& command : commands) {
        if (!command.name.empty())
            names += " " + command.name;
        options += "        " + (command.name.empty() ? "\"\"" : command.name) + ") words=\"" +
                   words_of(command) +
                   (command.name.empty() || command.takes_command ? "$names" : "") + "\"" +
                   (command.takes_files ? "; files=-f" : "") + " ;;\n";
        for (const OptionOutline& option : command.options)
            if (!option.value.empty())
                values += value_case(command, option);
    }
    return "# bash completion for screenrecord; made from the description of its options\n"
           "_screenrecord() {\n"
           "    local word=\"${COMP_WORDS[COMP_CWORD]}\" before=\"${COMP_WORDS[COMP_CWORD - 1]}\" "
           "command=\"\"\n"
           "    local names=\"" +
           names +
           "\" words files=\"\"\n"
           "    [ \"$COMP_CWORD\" -gt 1 ] && command=\"${COMP_WORDS[1]}\"\n"
           "    COMPREPLY=()\n"
           "    case \"$command:$before\" in\n" +
           values +
           "    esac\n"
           "    case \"$command\" in\n" +
           options +
           "    esac\n"
           "    [ -z \"$files\" ] || compopt -o filenames 2>/dev/null\n"
           "    COMPREPLY=($(compgen $files -W \"$words\" -- \"$word\"))\n"
           "}\n"
           "complete -F _screenrecord screenrecord\n";
}

} // namespace client
