#include <cerrno>
#include <fcntl.h>

#include "commands/commands.h"
#include "files/output_file.h"
#include "files/output_format.h"
#include "movie/movie_copy.h"
#include "process/messages.h"
#include "showing/status_report.h"

namespace client {
namespace {

common::Descriptor open_input(const std::string& path)
{
    common::Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat file = {};
    if (!fd || fstat(fd.get(), &file) != 0)
        throw Failure("cannot read " + path + ": " + error_text(errno), ExitCode::usage);
    if (!S_ISREG(file.st_mode))
        throw Failure("cannot read " + path + ": it is not an ordinary file", ExitCode::usage);
    return fd;
}

void attend(movie::MovieCopy& copy, StopSignals& signals)
{
    StatusReport report(false, "");
    copy.attend(signals, 0, [&report](double part) {
        if (!report.due())
            return;
        Progress progress;
        progress.finished_part = part;
        report.update(progress, "finishing");
    });
    report.finish({}, true);
}

} // namespace

ExitCode run(const RemuxOptions& options, CommandContext& context)
{
    const common::Descriptor from = open_input(options.input);
    check_whole_file_path(options.output, options.overwrite);
    try {
        auto copy = movie::MovieCopy::into_container(from.get(), options.output, options.overwrite,
                                                     *container_of(options.output, ""));
        attend(copy, context.signals);
        copy.finish();
    } catch (const std::exception& failure) {
        throw Failure("cannot make " + options.output + " of " + options.input + ": " +
                      failure.what());
    }
    context.output.print_path(options.output);
    return ExitCode::complete;
}

} // namespace client
