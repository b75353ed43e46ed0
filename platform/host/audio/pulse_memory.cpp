#include "audio/pulse_memory.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>

namespace zu3host {

void keep_pulse_memory_from_children()
{
    std::error_code error;
    // Errors are returned: an exception must not pass through the callbacks of a C library.
    for (std::filesystem::directory_iterator at("/proc/self/fd", error), end; !error && at != end;
         at.increment(error)) {
        std::error_code closed_meanwhile;
        const std::string target = std::filesystem::read_symlink(at->path(), closed_meanwhile).string();
        if (target.starts_with("/memfd:pulseaudio"))
            fcntl(std::atoi(at->path().filename().c_str()), F_SETFD, FD_CLOEXEC);
    }
}

} // namespace zu3host
