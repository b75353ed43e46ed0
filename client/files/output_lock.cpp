#include "files/output_lock.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sys/file.h>

#include "process/failure.h"
#include "process/messages.h"

namespace client {
namespace {

struct flock whole_file(short type)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

/** The recorder that a status file's writer belongs to; any other process itself. */
pid_t recorder_of(pid_t process)
{
    std::ifstream status(format_text("/proc/%d/status", static_cast<int>(process)));
    bool writer = false;
    for (std::string line; std::getline(status, line);) {
        writer = writer || line == std::string("Name:\t") + status_writer_name;
        if (writer && line.starts_with("PPid:\t"))
            return static_cast<pid_t>(std::atoi(line.c_str() + 6));
    }
    return process;
}

/** The process that has this record lock; 0 if it cannot be seen from here. */
pid_t holder(int fd)
{
    struct flock lock = whole_file(F_WRLCK);
    const bool held = fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    return held ? recorder_of(lock.l_pid) : 0;
}

} // namespace

// What counts is flock(2), which stays while the descriptor is open, whatever else the process
// opens and closes. A record lock, which any close of the file ends, only tells others the process:
// flock(2) does not.
void lock_output(int fd, const std::string& path)
{
    if (flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        const pid_t process = holder(fd);
        throw Failure(path + " is being recorded by " +
                          (process > 0 ? format_text("process %d", static_cast<int>(process))
                                       : std::string("another process")),
                      ExitCode::usage);
    }
    const bool writes = (fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDONLY;
    const struct flock told = whole_file(writes ? F_WRLCK : F_RDLCK);
    fcntl(fd, F_SETLK, &told);
}

} // namespace client
