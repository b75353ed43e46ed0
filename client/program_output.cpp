#include "program_output.h"

#include <cstdio>
#include <fcntl.h>

#include "messages.h"

namespace client {

ProgramOutput::ProgramOutput(bool verbose)
{
    std::fflush(stdout);
    fd_ = UniqueFd(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
    // The library prints a notice when its buffer is full; where nobody reads standard error any more, the
    // exit would wait for ever to print it.
    const UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(verbose || nowhere.get() < 0 ? STDERR_FILENO : nowhere.get(), STDOUT_FILENO);
}

void ProgramOutput::print_line(const std::string& line) const
{
    write_line(printable(line));
}

void ProgramOutput::print_path(const std::string& path) const
{
    write_line(isatty(fd_.get()) == 1 ? printable(path) : path);
}

void ProgramOutput::write_line(const std::string& line) const
{
    // Nobody is told when nobody listens.
    [[maybe_unused]] const auto written = write(fd_.get(), (line + "\n").c_str(), line.size() + 1);
}

} // namespace client
