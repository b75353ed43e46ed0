#include "documentation/outline.h"

namespace client {
namespace {

std::string spellings(const OptionOutline& option, const char* between)
{
    return (option.letter.empty() ? "" : "-" + option.letter + between) + "--" + option.name;
}

std::string joined(const std::vector<std::string>& words)
{
    std::string made;
    for (const std::string& word : words)
        made += (made.empty() ? "" : " ") + word;
    return made;
}

std::string words_of(const CommandOutline& command)
{
    std::string words;
    for (const OptionOutline& option : command.options)
        words += (words.empty() ? "" : " ") + spellings(option, " ");
    return command.words.empty() ? words : words + " " + joined(command.words);
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
    std::string words = joined(option.choices);
    if (option.name == "display")
        words = "$(for socket in /tmp/.X11-unix/X*; do echo \":${socket##*/X}\"; done)";
    return made + "COMPREPLY=($(compgen -W \"" + words + "\" -- \"$word\")); return ;;\n";
}

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
    const std::string words = joined(option.choices);
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
    return made + "(" + joined(option.choices) + ")";
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
    if (!command.words.empty())
        made += " \\\n            '1:word:(" + joined(command.words) + ")'";
    for (const OptionOutline& option : command.options)
        made += " \\\n            " + argument(option);
    if (command.takes_files)
        made += " \\\n            '*:file:_files'";
    return made;
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
        if (!command.words.empty())
            made += "complete -c screenrecord -n '" + condition + "' -a " +
                    fish_quoted(joined(command.words)) + "\n";
        if (command.takes_files)
            made += "complete -c screenrecord -n '" + condition + "' -F\n";
        for (const OptionOutline& option : command.options)
            made += line(option, condition);
    }
    return made;
}

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
