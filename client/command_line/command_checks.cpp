#include "command_line/command_checks.h"

#include <CLI/CLI.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include "files/output_file.h"
#include "files/output_format.h"
#include "process/messages.h"
#include <common/trusted_path.h>

namespace client {
namespace {

[[noreturn]] void refuse(const std::string& option, const std::string& reason)
{
    throw CLI::ValidationError(option, reason);
}

/** Refuses options that the container of the output does not support. */
void check_container(const CLI::App& command, const RecordOptions& options)
{
    const bool movie = container_of(options.output, options.format).has_value();
    const auto check = [&command](const char* option, bool works, const char* with) {
        if (!works && command.count(option) > 0)
            refuse(option, std::string("works only with ") + with);
    };
    for (const char* option : {"--rate", "--packet-size", "--slot", "--source", "--one-call"})
        check(option, !movie, "a .ts file");
    for (const char* option : {"--fragmented", "--control"})
        check(option, movie, "an .mp4 or .mkv file or '-o -'");
    check("--format", is_standard_output(options.output), "'-o -'");
    if (options.bit_rate && options.quality)
        refuse("--quality", "cannot be combined with --bitrate");
    if (options.constant_mbit != 0 && (options.bit_rate || options.quality))
        refuse("--rate", "cannot be combined with --bitrate or --quality");
}

struct NamedPath {
    const char* option;
    std::string path;
    bool written;
};
using Paths = std::vector<NamedPath>;

Paths paths_of(const RecordOptions& options)
{
    return {{"--output", options.output, true},
            {"--status-file", options.status_file, true},
            {"--source", options.source, false}};
}

Paths paths_of(const StreamOptions& options)
{
    return {{"--output", options.output, true}, {"--watermark", options.watermark.image, false}};
}

Paths paths_of(const ReplayOptions& options)
{
    return {{"--output", options.output, false}, {"--status-file", options.status_file, true}};
}

Paths paths_of(const ShotOptions& options)
{
    return {{"--output", options.output, true}};
}

Paths paths_of(const RemuxOptions& options)
{
    return {{"output", options.output, true}, {"input", options.input, false}};
}

Paths paths_of(const PcmOptions& options)
{
    return {{"--output", options.output, true}};
}

[[noreturn]] void refuse_path(const NamedPath& path, const std::string& reason)
{
    throw CLI::ValidationError(path.option, "'" + path.path + "' " + reason);
}

void check_name(const NamedPath& path)
{
    if (path.path.starts_with('='))
        refuse_path(path, "begins with '='; a short option has none before its value: '-o " +
                              path.path.substr(1) + "'; a file of that name is './" + path.path +
                              "'");
    if (path.path.starts_with('-') && path.path != "-")
        refuse_path(path, "looks like an option; a file of that name is './" + path.path + "'");
}

bool is_same_file(const std::string& one, const std::string& other)
{
    struct stat first = {}, second = {};
    const bool first_there = stat(one.c_str(), &first) == 0,
               second_there = stat(other.c_str(), &second) == 0;
    if (first_there != second_there)
        return false;
    if (first_there)
        return common::is_one_file(first, second);
    const common::TrustedPath first_place(one), second_place(other);
    if (fstat(first_place.folder(), &first) != 0 || fstat(second_place.folder(), &second) != 0)
        return one == other;
    return common::is_one_file(first, second) && first_place.name() == second_place.name();
}

void check_pair(const NamedPath& one, const NamedPath& other)
{
    if ((one.written || other.written) && is_same_file(one.path, other.path))
        refuse_path(other, "is the same file as " + std::string(one.option) + " '" + one.path +
                               "'; give one of them another name");
}

/** A shell may have redirected one of these to an output file. */
void check_against_standard_descriptors(const NamedPath& path)
{
    const char* const names[] = {"standard input", "standard output", "standard error"};
    struct stat named = {}, open = {};
    if (!path.written || stat(path.path.c_str(), &named) != 0 || !S_ISREG(named.st_mode))
        return;
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fstat(fd, &open) == 0 && common::is_one_file(named, open))
            refuse_path(path, std::string("is the file that ") + names[fd] +
                                  " is redirected to; give one of them another name");
}

void check(Paths paths)
{
    std::erase_if(paths, [](const NamedPath& each) { return each.path.empty(); });
    for (const NamedPath& path : paths)
        check_name(path);
    std::erase_if(paths, [](const NamedPath& each) { return is_standard_output(each.path); });
    for (size_t i = 0; i < paths.size(); ++i) {
        for (size_t j = 0; j < i; ++j)
            check_pair(paths[j], paths[i]);
        check_against_standard_descriptors(paths[i]);
    }
}

template <typename Options>
void check_output(const char* command, const Options& options, uint32_t fps = 0)
{
    const std::string problem = wrong_format(command, options.output, fps);
    if (!problem.empty())
        refuse_path({"--output", options.output, true}, problem);
    check(paths_of(options));
}

void check_sound(const CLI::App& command, const CommonOptions& options)
{
    if (command.count("--no-audio") > 0 && !options.sound.empty())
        refuse("--sound", "cannot be combined with --no-audio");
}

void check_record(const CLI::App& command, const RecordOptions& options)
{
    check_container(command, options);
    check_sound(command, options);
    if (options.output == "wifi")
        refuse("--output", "the name 'wifi' is reserved; a file of that name is './wifi'");
    if (is_standard_output(options.status_file))
        refuse("--status-file", "'" + options.status_file +
                                    "' is not a file; --json writes the status to standard error");
    if (!options.source.empty() && !options.size)
        refuse("--source", "'" + options.source + "' needs --size, the size of the pictures in it");
    if (options.source.ends_with(".ts"))
        refuse(
            "--source",
            "'" + options.source +
                "' ends in .ts, so the library would read it as a transport stream, not as raw NV12 pictures; rename it");
    if (!options.source.empty() && (options.part || !options.pointer))
        refuse("--source",
               "replaces the screen; it cannot be combined with a part of it or --no-pointer");
    if (options.slot != 0 && options.source.empty() && !options.one_call)
        refuse(
            "--slot",
            "1 cannot record the screen: the library delivers screen pictures only to slot 0; slot 1 encodes a --source");
    if (options.one_call && (!options.source.empty() || options.slot != 0 || !options.audio))
        refuse(
            "--one-call",
            "always records the screen with sound on slot 0; it cannot be combined with --source, --slot 1, --no-audio or --sound none");
}

void check_replay(const CLI::App& command, const ReplayOptions& options)
{
    check_sound(command, options);
    if (options.bit_rate && options.quality)
        refuse("--quality", "cannot be combined with --bitrate");
    if (is_standard_output(options.status_file))
        refuse("--status-file", "'" + options.status_file +
                                    "' is not a file; --json writes the status to standard error");
}

void check_pcm(const PcmOptions& options)
{
    if (options.sound == "none")
        refuse("--sound", "none leaves nothing to record");
}

void check_shot(const ShotOptions& options)
{
    if (is_standard_output(options.output) && options.count != 1)
        refuse("--count",
               format_text(
                   "%u pictures cannot be separated on standard output; name a file with --output",
                   options.count));
}

struct CommandCheck {
    const CLI::App& command;

    void operator()(const RecordOptions& options) const
    {
        check_record(command, options);
        check_output("record", options);
    }
    void operator()(const StreamOptions& options) const
    {
        check_output("stream", options, options.fps);
    }
    void operator()(const ShotOptions& options) const
    {
        check_shot(options);
        check_output("shot", options);
    }
    void operator()(const ReplayOptions& options) const
    {
        check_replay(command, options);
        check(paths_of(options));
    }
    void operator()(const PcmOptions& options) const
    {
        check_pcm(options);
        check_output("pcm", options);
    }
    void operator()(const RemuxOptions& options) const
    {
        if (is_standard_output(options.output) || !container_of(options.output, ""))
            refuse_path({"output", options.output, true},
                        "is not a name for an MP4 or Matroska file: those end in .mp4 or .mkv");
        check(paths_of(options));
    }
    void operator()(const auto&) const {} // no paths
};

Invocation chosen_command(const CLI::App& app, const AllOptions& all)
{
    const std::string name = app.get_subcommands().front()->get_name();
    if (name == "record")
        return all.record;
    if (name == "replay")
        return all.replay;
    if (name == "control")
        return all.control;
    if (name == "stream")
        return all.stream;
    if (name == "shot")
        return all.shot;
    if (name == "pcm")
        return all.pcm;
    if (name == "remux")
        return all.remux;
    if (name == "devices")
        return all.devices;
    return all.doctor;
}

} // namespace

void check_and_run(const CLI::App& app, const AllOptions& all, RunCommand run, int& code)
{
    const Invocation invocation = chosen_command(app, all);
    std::visit(CommandCheck{*app.get_subcommands().front()}, invocation);
    code = run(invocation);
}

} // namespace client
