#pragma once

#include <stdexcept>
#include <string>

namespace client {

/** How the program ended; scripts rely on the numbers. */
enum class ExitCode : int {
    /** the output is complete */
    complete = 0,
    /** no usable file was made */
    failed = 1,
    /** the command line is wrong, or its output cannot be written */
    usage = 2,
    /** the output ended early, is incomplete, or was removed, replaced or cut by another program */
    ended_early = 3,
};

/** A failure that ends the command: a sentence for the user, and the exit code. */
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
