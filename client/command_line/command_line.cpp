#include "command_line/command_line.h"

#include <algorithm>
#include <CLI/CLI.hpp>
#include <functional>
#include <iostream>

#include "command_line/command_checks.h"
#include "command_line/options.h"
#include "command_line/program_description.h"
#include "process/messages.h"

namespace client {
namespace {

/** The words after the program's name; "help" and "help COMMAND" become --help. */
std::vector<std::string> given_words(const CLI::App& app, int argc, char** argv)
{
    std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    const auto is_named = [&words](const CLI::App* command) {
        return command->get_name() == words.back();
    };
    if (words == std::vector<std::string>{help_command})
        return {"--help"};
    if (words.size() == 2 && words[0] == help_command && !app.get_subcommands(is_named).empty())
        return {words[1], "--help"};
    return words;
}

/** The names of all commands. */
std::vector<std::string> command_names(const CLI::App& app)
{
    std::vector<std::string> names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(command->get_name());
    return names;
}

std::vector<std::string> option_names(const CLI::App& command)
{
    std::vector<std::string> names;
    for (const CLI::Option* option : command.get_options())
        for (const std::string& name : option->get_lnames())
            names.push_back("--" + name);
    return names;
}

std::string or_nearest(const std::string& typed, const std::vector<std::string>& words,
                       const std::string& all)
{
    const auto meant = nearest_word(typed, words);
    return meant ? "perhaps you mean " + *meant : all;
}

std::string unknown_command(const CLI::App& app, const std::string& typed)
{
    const std::vector<std::string> names = command_names(app);
    return "there is no command '" + typed +
           "': " + or_nearest(typed, names, "the commands are " + listed(names, "and"));
}

std::string no_command(const CLI::App& app)
{
    const std::vector<std::string> words = app.remaining();
    if (!words.empty() && !words.front().starts_with('-'))
        return unknown_command(app, words.front());
    return "a command is missing" + (words.empty() ? "" : " before '" + words.front() + "'") +
           ": the commands are " + listed(command_names(app), "and");
}

std::string unexpected_word(const CLI::App& command, const std::string& name)
{
    const std::vector<std::string> words = command.remaining();
    const auto option =
        std::find_if(words.begin(), words.end(), [](const auto& w) { return w.starts_with('-'); });
    if (option != words.end())
        return "there is no option '" + *option + "' of " + name + ": " +
               or_nearest(*option, option_names(command),
                          "its options are " + listed(option_names(command), "and"));
    return "'" + words.front() + "' belongs to no option of " + name +
           (command.get_option_no_throw("--output") ? ": name the output file with --output" : "");
}

template <typename Condition>
const CLI::Option* find_option(const CLI::App& command, Condition condition)
{
    const std::vector<const CLI::Option*> options = command.get_options();
    const auto found = std::find_if(options.begin(), options.end(), condition);
    return found == options.end() ? nullptr : *found;
}

std::string missing_option(const CLI::App& command)
{
    const CLI::Option* option = find_option(
        command, [](const auto* each) { return each->get_required() && each->count() == 0; });
    return option->get_name() + " is missing: " + command.get_name() + " needs " +
           option->get_name() + " " + option->get_type_name();
}

/** @param last_word of the command line: only the last option can lack its value */
std::string wrong_count(const CLI::App& command, const std::string& last_word)
{
    const CLI::Option* repeated = find_option(
        command, [](const auto* each) { return each->get_type_size() != 0 && each->count() > 1; });
    if (repeated)
        return repeated->get_name() + " is given " + std::to_string(repeated->count()) +
               " times; only once is allowed";
    const CLI::Option* last = command.get_option_no_throw(last_word);
    // several letters after one dash
    if (!last && !last_word.empty())
        last = command.get_option_no_throw(std::string("-") + last_word.back());
    return (last ? last->get_name() : last_word) + " needs a value" +
           (last ? ": " + last->get_type_name() : "");
}

std::string flag_with_value(const CLI::App& command)
{
    const CLI::Option* flag = find_option(command, [](const auto* each) {
        return each->get_items_expected_max() == 0 && each->count() > 0 &&
               each->results().front() != "true";
    });
    return flag->get_name() + " accepts no value, but has '" + flag->results().front() + "'";
}

/** The given option whose required partner is missing. */
std::string missing_partner(const CLI::App& command)
{
    const CLI::Option* partner = nullptr;
    const CLI::Option* option = find_option(command, [&partner](const auto* each) {
        for (const CLI::Option* needed : each->get_needs())
            if (each->count() > 0 && needed->count() == 0)
                partner = needed;
        return partner != nullptr;
    });
    return option->get_name() + " needs " + partner->get_name() + ", which is missing";
}

/** The given option that another given one excludes. */
std::string excluded_partner(const CLI::App& command)
{
    const CLI::Option* other = nullptr;
    const CLI::Option* option = find_option(command, [&other](const auto* each) {
        for (const CLI::Option* excluded : each->get_excludes())
            if (each->count() > 0 && excluded->count() > 0)
                other = excluded;
        return other != nullptr;
    });
    return option->get_name() + " and " + other->get_name() + " cannot be combined";
}

/** One sentence: the error, the word that caused it, and the correct form if there is one. */
std::string error_sentence(const CLI::App& app, const CLI::ParseError& error,
                           const std::string& last_word)
{
    const auto chosen = app.get_subcommands();
    if (chosen.empty())
        return no_command(app);
    const CLI::App& command = *chosen.front();
    if (chosen.size() > 1 || !app.remaining().empty())
        return "'" + (chosen.size() > 1 ? chosen.back()->get_name() : app.remaining().front()) +
               "' cannot follow " + command.get_name() + ": one command at a time";
    if (command.get_name() == help_command && !command.remaining().empty() &&
        !command.remaining().front().starts_with('-'))
        return unknown_command(app, command.remaining().front());
    if (!command.remaining().empty())
        return unexpected_word(command, command.get_name());
    if (dynamic_cast<const CLI::RequiredError*>(&error))
        return missing_option(command);
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error))
        return wrong_count(command, last_word);
    if (dynamic_cast<const CLI::ConversionError*>(&error))
        return flag_with_value(command);
    if (dynamic_cast<const CLI::RequiresError*>(&error))
        return missing_partner(command);
    if (dynamic_cast<const CLI::ExcludesError*>(&error))
        return excluded_partner(command);
    // our own refusal
    return error.what();
}

} // namespace

int run_command_line(int argc, char** argv, RunCommand run)
{
    CLI::App app;
    AllOptions all;
    describe_program(app, all);
    int code = 0;
    // the parser calls it after the options' functions
    app.callback(
        std::bind_front(check_and_run, std::cref(app), std::cref(all), run, std::ref(code)));
    try {
        std::vector<std::string> words = given_words(app, argc, argv);
        // the parser reads them from the back
        std::reverse(words.begin(), words.end());
        app.parse(std::move(words));
        return code;
    } catch (const CLI::Success& answered) { // help or version
        app.exit(answered);
        std::cout.flush();
        return static_cast<int>(ExitCode::complete);
    } catch (const CLI::ParseError& error) {
        const auto command = app.get_subcommands();
        print_message(error_sentence(app, error, argv[argc - 1]) + "; see 'screenrecord " +
                      (command.empty() ? "" : command.front()->get_name() + " ") + "--help'");
        return static_cast<int>(ExitCode::usage);
    }
}

} // namespace client
