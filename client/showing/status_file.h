#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

#include "process/signals.h"

namespace client {

/**
 * A file that always contains one whole line, the latest text. A separate process writes it: the
 * kernel releases neither a thread that writes to a stalled disk nor the process of that thread. A
 * text that arrives during a write is dropped, since another follows.
 */
class StatusFile {
public:
    /**
     * Starts the process, which writes the first text. Throws Failure if it cannot; a disk that
     * does not answer within a second is not a failure.
     */
    StatusFile(std::string path, const std::string& text);
    StatusFile(const StatusFile&) = delete;
    StatusFile& operator=(const StatusFile&) = delete;
    ~StatusFile();

    /**
     * Never blocks. Returns a sentence if an earlier text could not be written; then `text` is not
     * written either.
     */
    std::optional<std::string> update(const std::string& text);
    /** The same for the last text; waits for it until `limit`. */
    std::optional<std::string> finish(const std::string& text, TimePoint limit);

private:
    void start_process();
    [[noreturn]] static void run(int socket, const std::string& path);
    void send(const std::string& text);
    std::optional<std::string> take_answer(TimePoint limit);

    std::string path_;
    common::Descriptor socket_;
    pid_t process_ = -1;
    /** an answer is due */
    bool pending_ = false;
};

} // namespace client
