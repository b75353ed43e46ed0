#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>

#include "files/output_watch.h"
#include "process/signals.h"

namespace client {

class SinkThread;

/**
 * Destination of a stream: a file, or the reader of a pipe. A separate thread writes, so neither a
 * slow reader nor a stalled disk blocks the program; data that has no room yet stays pending.
 */
class ByteSink {
public:
    /** How long a command that ends waits for a slow reader or disk. */
    static constexpr std::chrono::milliseconds patience_at_the_end{2000};

    enum class State {
        /** everything was taken */
        ready,
        /** the rest waits for room; poll fd() for POLLIN, then look() */
        pending,
        /** the pipe has no reader */
        reader_gone,
        /** see error() */
        failed,
    };

    /**
     * "-" is `standard_output`; waits for the reader of a named pipe until a stop is asked for.
     * Throws Failure.
     */
    ByteSink(const std::string& path, bool overwrite, int standard_output, StopSignals& signals);
    ~ByteSink();

    /** Lets so many bytes wait before it is pending, whatever the destination. */
    void allow(uint64_t bytes) { allowance_ = bytes; }
    /** The file that is written, null for standard output. */
    const OutputFile* file() const { return file_ ? &*file_ : nullptr; }

    /**
     * Starts to deliver `data`, which is copied; not while something is pending. What a disk has
     * not taken yet is pending only beyond some MiB.
     */
    State put(std::span<const uint8_t> data);
    /** The same, but replaces bytes of a file. @param at place of the first one */
    State put_at(uint64_t at, std::span<const uint8_t> data);
    /** How it stands, with all that was put. */
    State look();
    /** Waits until everything is taken, at most until `limit`. */
    State finish(TimePoint limit);

    /** Whether there is no room for more now. */
    bool pending() const;
    /** Bytes that wait. */
    uint64_t backlog() const;
    /** Readable once all that was put is taken. */
    int fd() const;
    int error() const { return error_; }
    /** Bytes that were put behind one another and taken. */
    uint64_t delivered() const;
    /** The path of a finished file, of late; empty for a pipe, and for a file without a name. */
    std::string path() const { return watch_ ? watch_->path() : std::string(); }
    /** Why what was written to a file is lost, as OutputWatch::problem(); nothing for a pipe. */
    std::optional<std::string> problem();
    std::optional<std::string> problem_at_end();
    /** Takes back all that is in the file, which is removed then; an errno, 0 = done. */
    int empty_file() { return cut_file(0); }
    /** Takes back what is in the file behind its first `bytes`; an errno, 0 = done. */
    int cut_file(uint64_t bytes);

private:
    void expect_delivered();
    State begin(std::span<const uint8_t> data, std::optional<uint64_t> at);

    std::optional<OutputFile> file_;
    std::optional<OutputWatch> watch_;
    // shared with the thread itself, which may be held for ever
    std::shared_ptr<SinkThread> thread_;
    /** bytes that may wait for a disk */
    uint64_t allowance_ = 0;
    bool unfinished_ = false;
    int error_ = 0;
};

} // namespace client
