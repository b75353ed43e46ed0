#pragma once

#include <stdexcept>
#include <string>

namespace client {

/** How the program ended; scripts rely on the numbers. */
enum class ExitCode : int {
    /** everything that was asked for is there */
    complete = 0,
    /** no usable file was made */
    failed = 1,
    /** the command line asks for something that cannot be, such as its output */
    usage = 2,
    /** what was made ended before it was asked to, lacks some of it, or was lost to others */
    ended_early = 3,
};

/** A failure that ends the command: a sentence for people, and the exit code. */
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& sentence, ExitCode code = ExitCode::failed)
        : std::runtime_error(sentence), code_(code)
    {
    }
    ExitCode code() const { return code_; }

private:
    ExitCode code_;
};

} // namespace client
