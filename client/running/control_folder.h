#pragma once

#include <string>
#include <vector>

#include <common/descriptor.h>
#include <sys/types.h>

namespace client {

/**
 * The folder of the user's control sockets, `screenrecord` in XDG_RUNTIME_DIR: one socket a
 * recorder, named by its process.
 */
class ControlFolder {
public:
    /**
     * Opens the folder, and makes it if it is missing. Throws Failure, the end of a sentence, if
     * XDG_RUNTIME_DIR is not set, or if it or the folder does not belong to this user alone.
     */
    ControlFolder();

    int fd() const { return fd_.get(); }
    /** The processes that have a socket here. Removes the sockets of dead ones. */
    std::vector<pid_t> processes() const;
    /** Name of a process's socket in the folder. */
    static std::string socket_name(pid_t process);
    /** A path to bind or connect to, which fits a socket address even if the folder's does not. */
    std::string path_of(const std::string& name) const;

private:
    common::Descriptor fd_;
};

/** Whether the process at the other end of a connection runs as this user. */
bool peer_is_own_user(int socket);

} // namespace client
