#include "process/standard_output.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

#include "process/messages.h"

namespace client {
namespace {

/** Lives until the process ends: a stalled reader may block its thread that long. */
common::LineWriter& lines_of(int fd)
{
    static auto& lines = *new common::LineWriter(fd);
    return lines;
}

} // namespace

ProgramOutput::ProgramOutput(bool verbose, StopSignals& signals)
    : signals_(signals), fd_((std::fflush(stdout), fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3))),
      lines_(lines_of(fd_))
{
    // The library prints notices to stdout. If nothing reads standard error, flushing them would
    // block the exit.
    const common::Descriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(verbose || nowhere.get() < 0 ? STDERR_FILENO : nowhere.get(), STDOUT_FILENO);
}

ProgramOutput::~ProgramOutput()
{
    while (!lines_.flush(Clock::now() + std::chrono::milliseconds(50)))
        if (signals_.raised()) {
            lines_.flush(Clock::now() + std::chrono::seconds(1));
            return;
        }
}

void ProgramOutput::print_line(const std::string& line)
{
    write_line(printable_line(line));
}

void ProgramOutput::print_path(const std::string& path)
{
    write_line(isatty(fd_) == 1 ? printable(path) : path);
}

void ProgramOutput::write_line(const std::string& line)
{
    // Without a reader the line is dropped, without an error.
    while (lines_.put(line + "\n") == -EAGAIN)
        if (signals_.wait_until(Clock::now() + std::chrono::milliseconds(50)))
            return;
}

} // namespace client
