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

// A stalled reader of standard error never blocks the program: up to 64 KiB of messages are queued,
// and get a second at the end. A status is not queued, since the next one replaces it.

/**
 * `text` as it may go to a terminal: a control character, also a line end, becomes "\x1b".
 * Everything printed here passes through it, since other people choose the names of files, displays
 * and sound sources.
 */
std::string printable(const std::string& text);

/**
 * printable() as a line that always fits into a LineWriter: the middle of a longer text is left out.
 */
std::string printable_line(const std::string& text);

/**
 * Prints "screenrecord: " and the sentence as a line on standard error, in place of a status line
 * shown there.
 */
void print_message(const std::string& sentence);

/** Prints `line` alone on standard error, in place of a status line shown there. */
void print_error_line(const std::string& line);

/** Prints a machine-readable status as a line on standard error. */
void print_status_object(const std::string& object);

/**
 * Shows `line` as the terminal's refreshed line after `mark`, which may contain its colour. It
 * stays until the next one or the next message.
 */
void show_status_line(const std::string& mark, const std::string& line);

/** Removes the refreshed line, if one is shown. */
void clear_status_line();

/** Waits until the messages are read, at most one second. */
void finish_messages();

/** The text that printf would print. */
[[gnu::format(printf, 1, 2)]] std::string format_text(const char* format, ...);

/** The text of the system for `error`, an errno value. */
std::string error_text(int error);

} // namespace client
