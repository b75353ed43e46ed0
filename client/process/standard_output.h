#pragma once

#include <string>

#include "process/signals.h"
#include <common/line_writer.h>

namespace client {

/**
 * Standard output for the results of the program: the path of a finished file, or the stream.
 * Notices that the library prints with printf are discarded, or go to standard error with
 * --verbose.
 */
class ProgramOutput {
public:
    ProgramOutput(bool verbose, StopSignals& signals);
    /** Waits until the lines are read; after a stop request at most one second. */
    ~ProgramOutput();
    ProgramOutput(const ProgramOutput&) = delete;
    ProgramOutput& operator=(const ProgramOutput&) = delete;

    int fd() const { return fd_; }
    // Both wait for a slow reader; after a stop signal they drop the line.
    /** For the user, without control characters. */
    void print_line(const std::string& line);
    /** The path of a finished file: unchanged, but to a terminal without control characters. */
    void print_path(const std::string& path);

private:
    void write_line(const std::string& line);

    StopSignals& signals_;
    // never closed: a thread may write to it until the process ends
    int fd_;
    common::LineWriter& lines_;
};

} // namespace client
