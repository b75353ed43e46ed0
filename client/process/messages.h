#pragma once

#include <string>

namespace client {

// A stalled reader of standard error never blocks the program: up to 64 KiB of messages wait in a
// queue, and for a second at the end. A status that the next one replaces is not queued.

/**
 * `text` as a terminal may get it. All that is printed here passes through it, since names of
 * files, displays and sound sources are other people's: a control character, a line end among them,
 * becomes "\x1b".
 */
std::string printable(const std::string& text);

/**
 * Prints "screenrecord: " and the sentence as a line on standard error, in place of a status line
 * shown there.
 */
void print_message(const std::string& sentence);

/** Prints `line` alone on standard error, in place of a status line shown there. */
void print_error_line(const std::string& line);

/** Prints a status for programs as a line on standard error. */
void print_status_object(const std::string& object);

/**
 * Shows `line` as the terminal's refreshed line, behind `mark`, which may bring its colour along;
 * it stays until the next one or the next message.
 */
void show_status_line(const std::string& mark, const std::string& line);

/** Removes the refreshed line, if one is shown. */
void clear_status_line();

/** Waits until the messages are read, at most a second. */
void finish_messages();

/** The text that printf would make. */
[[gnu::format(printf, 1, 2)]] std::string format_text(const char* format, ...);

/** What the system says of `error`, an errno value. */
std::string error_text(int error);

} // namespace client
