#pragma once

#include <optional>
#include <span>
#include <string>

#include "output_file.h"
#include "signals.h"

namespace client {

/**
 * Where a stream goes: a file, or a reader behind a pipe that may be slow. A slow reader never holds the
 * program up: what it has no room for stays pending until poll() says that there is some.
 */
class ByteSink {
public:
    enum class State {
        ready,       /**< everything was taken */
        pending,     /**< the rest waits for room; poll fd() for POLLOUT, then pump() */
        reader_gone, /**< nobody reads any more */
        failed,      /**< see error() */
    };

    /** "-" is `standard_output`; waits for the reader of a named pipe until a stop is asked for. Throws
     * Failure. */
    ByteSink(const std::string& path, bool overwrite, int standard_output, StopSignals& signals);

    /** Starts to deliver `data`, which must stay as it is until the state is no longer `pending`. */
    State put(std::span<const uint8_t> data);
    /** Goes on where there is room now. */
    State pump();
    /** Goes on until everything is taken, at most until `limit`. */
    State finish(TimePoint limit);

    bool pending() const { return !rest_.empty(); }
    int fd() const { return fd_; }
    int error() const { return error_; }
    uint64_t delivered() const { return delivered_; }
    /** The path of a finished file; empty for a pipe. */
    const std::string& path() const { return path_; }

private:
    ssize_t write_some();

    std::optional<OutputFile> file_;
    UniqueFd named_pipe_;
    std::string path_;
    int fd_;
    bool paced_ = true; /**< takes only what poll() said that there is room for */
    int error_ = 0;
    uint64_t delivered_ = 0;
    std::span<const uint8_t> rest_;
};

} // namespace client
