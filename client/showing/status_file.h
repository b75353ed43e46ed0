#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

#include "process/signals.h"

namespace client {

/**
 * A file that always holds one whole line, the latest text. A separate process writes it: while a
 * disk stands still, the kernel releases neither a thread that writes to it nor the process of that
 * thread. A text that arrives during a write is dropped, since another follows.
 */
class StatusFile {
public:
    /**
     * Starts the process and has the first text written. Throws Failure when it cannot be; a disk
     * that does not answer within a second is no such failure.
     */
    StatusFile(std::string path, const std::string& text);
    StatusFile(const StatusFile&) = delete;
    StatusFile& operator=(const StatusFile&) = delete;
    ~StatusFile();

    /**
     * Never waits. A sentence when an earlier text could not be written: then this one is not
     * either.
     */
    std::optional<std::string> update(const std::string& text);
    /** The same for the last text, which is waited for until `limit`. */
    std::optional<std::string> finish(const std::string& text, TimePoint limit);

private:
    void start_process();
    [[noreturn]] static void run(int socket, const std::string& path);
    void send(const std::string& text);
    std::optional<std::string> take_answer(TimePoint limit);

    std::string path_;
    common::Descriptor socket_;
    pid_t process_ = -1;
    /** an answer is to come */
    bool pending_ = false;
};

} // namespace client
