#include "command_line/command_line.h"

#include <algorithm>
#include <CLI/CLI.hpp>
#include <iostream>

#include "command_line/command_paths.h"
#include "command_line/option_values.h"
#include "command_line/program_description.h"
#include "process/failure.h"
#include "process/messages.h"

namespace client {
namespace {

Invocation chosen(const CLI::App& app, const AllOptions& all)
{
    const std::string name = app.get_subcommands().front()->get_name();
    if (name == "record")
        return all.record;
    if (name == "stream")
        return all.stream;
    if (name == "shot")
        return all.shot;
    if (name == "pcm")
        return all.pcm;
    if (name == "devices")
        return all.devices;
    return all.doctor;
}

/**
 * The words after the program's name, of which "help" and "help COMMAND" become the option that
 * they stand for.
 */
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

/** Names of the commands, or of an app's options in their long form. */
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
    return meant ? "perhaps " + *meant + " was meant" : all;
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
           (command.get_option_no_throw("--output") ? ": a file to write is named with --output"
                                                    : "");
}

/** The library's messages begin with the option's name. */
std::string option_in(const std::string& message)
{
    return message.substr(0, message.find_first_of(": "));
}

std::string wrong_count(const CLI::App& command, const std::string& name)
{
    const CLI::Option* option = command.get_option_no_throw(name);
    if (!option)
        return name + " is given in a way that it cannot be";
    if (option->count() > 1)
        return name + " is given " + std::to_string(option->count()) +
               " times, but can be given once";
    if (option->get_type_size() == 0)
        return name + " takes no value";
    return name + " needs a value behind it: " + option->get_type_name();
}

std::string required_option(const CLI::App& command, const std::string& name)
{
    return name + " is missing: " + command.get_name() + " needs " + name + " " +
           command.get_option(name)->get_type_name();
}

std::string what_is_wrong(const CLI::App& app, const CLI::ParseError& error)
{
    const auto chosen = app.get_subcommands();
    if (chosen.empty())
        return no_command(app);
    const CLI::App& command = *chosen.front();
    const std::string message = error.what(), option = option_in(message);
    if (chosen.size() > 1 || !app.remaining().empty())
        return "'" + (chosen.size() > 1 ? chosen.back()->get_name() : app.remaining().front()) +
               "' cannot follow " + command.get_name() + ": one command at a time";
    if (command.get_name() == help_command && !command.remaining().empty() &&
        !command.remaining().front().starts_with('-'))
        return unknown_command(app, command.remaining().front());
    if (!command.remaining().empty())
        return unexpected_word(command, command.get_name());
    if (dynamic_cast<const CLI::RequiredError*>(&error))
        return required_option(command, option);
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&error))
        return wrong_count(command, option);
    if (dynamic_cast<const CLI::RequiresError*>(&error))
        return option + " goes with " + message.substr(message.rfind(' ') + 1) +
               " only, which is missing";
    return message;
}

} // namespace

Invocation read_command_line(int argc, char** argv)
{
    CLI::App app;
    AllOptions all;
    describe_program(app, all);
    try {
        std::vector<std::string> words = given_words(app, argc, argv);
        // as the parser wants them
        std::reverse(words.begin(), words.end());
        app.parse(std::move(words));
        Invocation invocation = chosen(app, all);
        check_paths(invocation);
        return invocation;
    } catch (const CLI::Success& answered) { // help or version
        app.exit(answered);
        std::cout.flush();
        return static_cast<int>(ExitCode::complete);
    } catch (const CLI::ParseError& error) {
        const auto command = app.get_subcommands();
        say(what_is_wrong(app, error) + "; see 'screenrecord " +
            (command.empty() ? "" : command.front()->get_name() + " ") + "--help'");
        return static_cast<int>(ExitCode::usage);
    }
}

} // namespace client
