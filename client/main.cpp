#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

#include "command_line/command_line.h"
#include "commands/commands.h"
#include "process/messages.h"

namespace {

using namespace client;

// Otherwise the recording could become descriptor 2 and receive the log. Opened to read only, so
// that a write to a missing descriptor still fails.
void fill_standard_descriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) < 0)
            // the lowest free number, which is this one
            open("/dev/null", O_RDONLY);
}

int run_program(int argc, char** argv)
{
    const int code = run(read_command_line(argc, argv));
    finish_messages();
    return code;
}

} // namespace

int main(int argc, char** argv)
{
    fill_standard_descriptors();
    try {
        return run_program(argc, argv);
    } catch (...) {
        // No memory for the command line, or for the reason of another failure.
        constexpr std::string_view text = "screenrecord: cannot go on\n";
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
        return static_cast<int>(ExitCode::failed);
    }
}
