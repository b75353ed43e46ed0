#include "command_line/command_line.h"

#include <algorithm>
#include <CLI/CLI.hpp>
#include <iostream>

#include "command_line/command_paths.h"
#include "command_line/program_description.h"
#include "command_line/refusals.h"
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
