#include "documentation/outline.h"

namespace client {
namespace {

std::string fish_quoted(const std::string& text)
{
    std::string made = "'";
    for (const char c : text)
        made += c == '\'' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    return made + "'";
}

std::string value_of(const OptionOutline& option)
{
    if (option.value.empty())
        return "";
    if (option.takes_file)
        return " -r -F";
    std::string words;
    for (const std::string& choice : option.choices)
        words += (words.empty() ? "" : " ") + choice;
    if (option.name == "display")
        return " -x -a '(string replace -r \".*/X\" : /tmp/.X11-unix/X*)'";
    return words.empty() ? " -x" : " -x -a " + fish_quoted(words);
}

std::string line(const OptionOutline& option, const std::string& condition)
{
    return "complete -c screenrecord -n '" + condition + "'" +
           (option.letter.empty() ? "" : " -s " + option.letter) + " -l " + option.name +
           value_of(option) + " -d " + fish_quoted(option.text) + "\n";
}

} // namespace

std::string fish_completion()
{
    const std::vector<CommandOutline> commands = outline();
    std::string made =
        "# fish completion for screenrecord; made from the description of its options\n"
        "complete -c screenrecord -f\n";
    std::string names;
    for (const CommandOutline& command : commands)
        names += (names.empty() ? "" : " ") + command.name;
    for (const CommandOutline& command : commands) {
        if (!command.name.empty())
            made += "complete -c screenrecord -n __fish_use_subcommand -a " + command.name +
                    " -d " + fish_quoted(command.text) + "\n";
        const std::string condition = command.name.empty()
                                          ? "__fish_use_subcommand"
                                          : "__fish_seen_subcommand_from " + command.name;
        if (command.takes_command)
            made +=
                "complete -c screenrecord -n '" + condition + "' -a " + fish_quoted(names) + "\n";
        if (command.takes_files)
            made += "complete -c screenrecord -n '" + condition + "' -F\n";
        for (const OptionOutline& option : command.options)
            made += line(option, condition);
    }
    return made;
}

} // namespace client
