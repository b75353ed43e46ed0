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
    void print_line(const std::string& line) const;

private:
    UniqueFd fd_;
};

} // namespace client
