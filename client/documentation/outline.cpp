#include "documentation/outline.h"

#include <cctype>
#include <CLI/CLI.hpp>

#include "command_line/program_description.h"

namespace client {
namespace {

// In help, a value in capitals is a placeholder; lower case and digits are the words themselves.
std::vector<std::string> words_among(const std::string& value)
{
    if (value.empty() || std::isupper(static_cast<unsigned char>(value.front())))
        return {};
    std::vector<std::string> words = choices_of(value);
    std::erase_if(words, [](const std::string& word) {
        return std::isupper(static_cast<unsigned char>(word.front()));
    });
    return words;
}

OptionOutline outline_of(const CLI::Option& option)
{
    OptionOutline made;
    made.name = option.get_lnames().front();
    made.required = option.get_required();
    made.text = option.get_description();
    if (!option.get_snames().empty())
        made.letter = option.get_snames().front();
    if (option.get_type_size() == 0)
        return made;
    made.value = option.get_type_name();
    made.takes_file = made.value.starts_with("FILE") || made.value.starts_with("IMAGE");
    made.choices = words_among(made.value);
    return made;
}

/** Another name of an option. */
OptionOutline alias_outline(const std::string& name, OptionOutline option)
{
    option.text = "the same as --" + option.name;
    option.name = name;
    option.letter.clear();
    option.required = false;
    return option;
}

CommandOutline outline_of(const CLI::App& app, const std::string& name)
{
    CommandOutline made{.name = name,
                        .text = app.get_description(),
                        .options = {},
                        .words = {},
                        .takes_command = name == help_command,
                        .takes_files = false};
    for (const CLI::Option* option : app.get_options()) {
        if (option->get_positional()) {
            made.words = words_among(option->get_type_name());
            made.takes_files = made.words.empty();
            continue;
        }
        const OptionOutline whole = outline_of(*option);
        made.options.push_back(whole);
        for (const std::string& other : option->get_lnames())
            if (other != whole.name)
                made.options.push_back(alias_outline(other, whole));
    }
    return made;
}

} // namespace

std::vector<CommandOutline> outline()
{
    CLI::App app;
    AllOptions all;
    describe_program(app, all);
    std::vector<CommandOutline> made{outline_of(app, "")};
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        made.push_back(outline_of(*command, command->get_name()));
    return made;
}

} // namespace client
