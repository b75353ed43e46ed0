#include "command_line.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "exit_code.h"
#include "messages.h"
#include "program_description.h"
#include "refusals.h"

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

} // namespace

Invocation read_command_line(int argc, char** argv)
{
    CLI::App app;
    AllOptions all;
    describe_program(app, all);
    try {
        app.parse(argc, argv);
        return chosen(app, all);
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
