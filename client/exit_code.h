#pragma once

#include <stdexcept>
#include <string>

namespace client {

/** How the program ended; scripts rely on the numbers. */
enum class ExitCode : int {
    complete = 0,    /**< everything that was asked for is there */
    failed = 1,      /**< no usable file was made */
    usage = 2,       /**< the command line asks for something that cannot be, such as its output */
    ended_early = 3, /**< what was made ended before it was asked to, lacks some of it, or was lost to others */
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
