#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <malloc.h>
#include <string_view>
#include <unistd.h>

#include "command_line/command_line.h"
#include "commands/commands.h"
#include "process/messages.h"

namespace {

using namespace client;

// Keeps a recording from becoming descriptor 2 and receiving the log. Opened read-only, so a write
// to a missing descriptor still fails.
void fill_standard_descriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) < 0)
            // open() returns the lowest free number, which is fd
            open("/dev/null", O_RDONLY);
}

// Returns blocks as large as pictures to the system as soon as they are freed. By default the C
// library keeps such blocks after the first free: 4 MiB once x264 has been reopened.
void return_large_blocks()
{
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
}

int run_program(int argc, char** argv)
{
    const int code = run_command_line(argc, argv, run);
    finish_messages();
    return code;
}

} // namespace

int main(int argc, char** argv)
{
    fill_standard_descriptors();
    return_large_blocks();
    try {
        return run_program(argc, argv);
    } catch (...) {
        // Out of memory, perhaps while another failure was described.
        constexpr std::string_view text = "screenrecord: cannot continue\n";
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
        return static_cast<int>(ExitCode::failed);
    }
}
