#include "documentation/outline.h"

namespace client {
namespace {

/** Escapes text inside single quotes and inside the brackets or colons of _arguments. */
std::string zsh_quoted(const std::string& text)
{
    std::string made;
    for (const char c : text) {
        if (c == '\'')
            made += "'\\''";
        else if (c == '[' || c == ']' || c == ':' || c == '\\')
            made += std::string("\\") + c;
        else
            made += c;
    }
    return made;
}

std::string value_action(const OptionOutline& option)
{
    if (option.value.empty())
        return "";
    std::string made = ":" + zsh_quoted(option.value) + ":";
    if (option.takes_file)
        return made + "_files";
    if (option.name == "display")
        return made + "_x_display";
    if (option.choices.empty())
        return made + " ";
    std::string words;
    for (const std::string& choice : option.choices)
        words += (words.empty() ? "" : " ") + choice;
    return made + "(" + words + ")";
}

std::string argument(const OptionOutline& option)
{
    const std::string rest = "[" + zsh_quoted(option.text) + "]" + value_action(option) + "'";
    const std::string name = "--" + option.name;
    if (option.letter.empty())
        return "'" + name + rest;
    const std::string both = "-" + option.letter + " " + name;
    return "'(" + both + ")'{-" + option.letter + "," + name + "}'" + rest;
}

std::string arguments(const CommandOutline& command)
{
    std::string made;
    if (command.takes_command)
        made += " \\\n            '1:command:{_describe command commands}'";
    for (const OptionOutline& option : command.options)
        made += " \\\n            " + argument(option);
    if (command.takes_files)
        made += " \\\n            '*:file:_files'";
    return made;
}

} // namespace

std::string zsh_completion()
{
    const std::vector<CommandOutline> commands = outline();
    std::string names, cases;
    for (const CommandOutline& command : commands) {
        if (command.name.empty())
            continue;
        names += "        '" + command.name + ":" + zsh_quoted(command.text) + "'\n";
        cases += "        " + command.name + ")\n            _arguments -s" + arguments(command) +
                 "\n            ;;\n";
    }
    return "#compdef screenrecord\n"
           "# made from the description of its options\n"
           "_screenrecord() {\n"
           "    local -a commands=(\n" +
           names +
           "    )\n"
           "    if (( CURRENT == 2 )); then\n"
           "        _describe command commands\n"
           "        _arguments" +
           arguments(commands.front()) +
           "\n"
           "        return\n"
           "    fi\n"
           "    shift words\n"
           "    (( CURRENT-- ))\n"
           "    case $words[1] in\n" +
           cases +
           "    esac\n"
           "}\n"
           "_screenrecord \"$@\"\n";
}

} // namespace client
