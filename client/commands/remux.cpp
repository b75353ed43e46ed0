#include <cerrno>
#include <fcntl.h>
#include <poll.h>

#include "commands/commands.h"
#include "files/output_file.h"
#include "files/output_format.h"
#include "movie/movie_copy.h"
#include "process/messages.h"
#include "showing/status_report.h"

namespace client {
namespace {

constexpr std::chrono::milliseconds patience_with_disk(2000);

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
    TimePoint limit = TimePoint::max();
    while (!copy.through() && Clock::now() < limit) {
        pollfd waited[] = {{copy.fd(), POLLIN, 0}, {signals.fd(), POLLIN, 0}};
        poll(waited, std::size(waited), 100);
        if (limit == TimePoint::max() && signals.raised()) {
            copy.cancel();
            limit = Clock::now() + patience_with_disk;
        }
        if (!report.due())
            continue;
        Progress progress;
        progress.finished_part = copy.part();
        report.update(progress, "finishing");
    }
    report.finish({}, true);
}

} // namespace

ExitCode run(const RemuxOptions& options, CommandContext& context)
{
    const common::Descriptor from = open_input(options.input);
    check_output_path(options.output, options.overwrite);
    AtomicFile to(options.output);
    try {
        movie::MovieCopy copy(from.get(), to.fd(), *container_of(options.output, ""));
        attend(copy, context.signals);
        if (!copy.through())
            throw Failure("its disk does not respond");
        copy.finish();
    } catch (const std::exception& failure) {
        throw Failure("cannot make " + options.output + " of " + options.input + ": " +
                      failure.what());
    }
    to.put_in_place(options.overwrite);
    context.output.print_path(options.output);
    return ExitCode::complete;
}

} // namespace client
