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
 * Destination of a stream: a file, a pipe or a device. A separate thread writes, so neither a slow
 * reader nor a stalled disk blocks the program; data without room stays pending.
 */
class ByteSink {
public:
    /** Longest wait for a slow reader or disk when a command ends. */
    static constexpr std::chrono::milliseconds patience_at_the_end{2000};

    enum class State {
        /** everything is written */
        ready,
        /** the rest waits for room; poll fd() for POLLIN, then look() */
        pending,
        /** the pipe has no reader */
        reader_gone,
        /** see error() */
        failed,
    };

    /**
     * "-" is `standard_output`. Waits for the reader of a named pipe until a stop is requested.
     * Throws Failure.
     */
    ByteSink(const std::string& path, bool overwrite, int standard_output, StopSignals& signals);
    ~ByteSink();

    /** Sets the bytes that may wait before the sink is pending, for any destination. */
    void allow(uint64_t bytes) { allowance_ = bytes; }
    /** The output file; null for standard output. */
    const OutputFile* file() const { return file_ ? &*file_ : nullptr; }

    /**
     * Starts to write a copy of `data`; do not call it while the sink is pending. A disk may be
     * some MiB behind before the sink is pending.
     */
    State put(std::span<const uint8_t> data);
    /**
     * The same, but replaces bytes of a file.
     * @param at offset of the first one
     */
    State put_at(uint64_t at, std::span<const uint8_t> data);
    /** The state of everything put so far. */
    State look();
    /** Waits until everything is written, at most until `limit`. */
    State finish(TimePoint limit);

    /** Whether there is no room for more data. */
    bool pending() const;
    /** Bytes that wait. */
    uint64_t backlog() const;
    /** Time since the disk or the reader last accepted a byte; 0 = none waits. */
    Clock::duration standstill() const;
    /** Readable once everything is written. */
    int fd() const;
    int error() const { return error_; }
    /** Bytes of put(), not of put_at(), that are written. */
    uint64_t delivered() const;
    /** The current path of the file; empty for a pipe and for a file without a name. */
    std::string path() const { return watch_ ? watch_->path() : std::string(); }
    /** Why the written data is lost, as OutputWatch::problem(); nullopt for a pipe. */
    std::optional<std::string> problem();
    std::optional<std::string> problem_at_end();
    /** After finish(): why the end is missing from `output`; nullopt = it is not. */
    std::optional<std::string> missing_end(const std::string& output);
    /**
     * Empties the file, so that it is removed at the end.
     * @return an errno, 0 = done
     */
    int empty_file() { return cut_file(0); }
    /**
     * Cuts the file to its first `bytes`.
     * @return an errno, 0 = done
     */
    int cut_file(uint64_t bytes);

private:
    void expect_delivered();
    State begin(std::span<const uint8_t> data, std::optional<uint64_t> at);

    std::optional<OutputFile> file_;
    std::optional<OutputWatch> watch_;
    // shared with the thread, which a stalled disk may block for ever
    std::shared_ptr<SinkThread> thread_;
    /** bytes that may wait for a disk */
    uint64_t allowance_ = 0;
    bool unfinished_ = false;
    int error_ = 0;
};

} // namespace client
