#pragma once

#include <string>

#include "process/signals.h"
#include <common/line_writer.h>

namespace client {

/**
 * Standard output, kept for what the program itself delivers: the path of a finished file, or the
 * stream. The library prints notices with printf, which go nowhere from then on, or to standard
 * error when it is to say what it does.
 */
class ProgramOutput {
public:
    ProgramOutput(bool verbose, StopSignals& signals);
    /** Waits until the lines are read, and no longer than a second once a stop is asked for. */
    ~ProgramOutput();
    ProgramOutput(const ProgramOutput&) = delete;
    ProgramOutput& operator=(const ProgramOutput&) = delete;

    int fd() const { return fd_; }
    // Both wait for a slow reader; after a stop signal they drop the line.
    /** For people, without control characters. */
    void print_line(const std::string& line);
    /**
     * The path of a finished file: to a program as it is, to a terminal without control characters.
     */
    void print_path(const std::string& path);

private:
    void write_line(const std::string& line);

    StopSignals& signals_;
    // never closed: a thread may write to it until the process ends
    int fd_;
    common::LineWriter& lines_;
};

} // namespace client
