#pragma once

#include <string>

#include "unique_fd.h"

namespace client {

/**
 * Standard output, kept for what the program itself delivers: the path of a finished file, or the stream. The
 * library prints notices with printf, which go nowhere from then on, or to standard error when it is to say
 * what it does.
 */
class ProgramOutput {
public:
    explicit ProgramOutput(bool verbose);

    int fd() const { return fd_.get(); }
    /** For people, without control characters. */
    void print_line(const std::string& line) const;
    /** The path of a finished file: to a program as it is, to a terminal without control characters. */
    void print_path(const std::string& path) const;

private:
    void write_line(const std::string& line) const;

    UniqueFd fd_;
};

} // namespace client
