#include "audio/pulse_memory.h"

#include "base/border.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>

namespace zu3host {

namespace {

bool mark_memory_files()
{
    std::error_code error;
    for (std::filesystem::directory_iterator at("/proc/self/fd", error), end; !error && at != end;
         at.increment(error)) {
        std::error_code closed_meanwhile;
        const std::string target =
            std::filesystem::read_symlink(at->path(), closed_meanwhile).string();
        if (target.starts_with("/memfd:pulseaudio"))
            fcntl(std::atoi(at->path().filename().c_str()), F_SETFD, FD_CLOEXEC);
    }
    return true;
}

} // namespace

void keep_pulse_memory_from_children()
{
    at_border("Keeping libpulse's memory from child processes", false, mark_memory_files);
}

} // namespace zu3host
