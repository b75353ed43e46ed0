#include "messages.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <unistd.h>

#include "common/printable.h"

namespace client {
namespace {

bool status_line_shown = false;

constexpr int no_patience_ms = 0;
constexpr int patience_ms = 1000;

// One write a message, up to what a pipe takes whole: lines of several processes, or of the library's log, do
// not end up inside one another. What poll() calls writable takes that much without blocking; a reader who
// has stopped reading must not hold up the program, which would not hear a signal meanwhile.
void write_error(const std::string& text, int timeout_ms)
{
    size_t done = 0;
    while (done < text.size()) {
        pollfd room{STDERR_FILENO, POLLOUT, 0};
        if (poll(&room, 1, timeout_ms) != 1)
            return;
        const ssize_t n =
            write(STDERR_FILENO, text.data() + done, std::min<size_t>(text.size() - done, PIPE_BUF));
        if (n <= 0)
            return;
        done += static_cast<size_t>(n);
    }
}

constexpr const char* back_to_empty_line = "\r\033[K";

} // namespace

std::string printable(const std::string& text)
{
    std::string made;
    zu3host::put_printable(text, [&made](std::string_view piece) { made += piece; });
    return made;
}

void say(const std::string& sentence)
{
    print_error_line("screenrecord: " + sentence);
}

void print_error_line(const std::string& line)
{
    write_error((status_line_shown ? back_to_empty_line : "") + printable(line) + "\n", patience_ms);
    status_line_shown = false;
}

void print_status_object(const std::string& object)
{
    write_error(printable(object) + "\n", no_patience_ms);
}

void show_status_line(const std::string& mark, const std::string& line)
{
    // What others write begins at its begin.
    write_error(back_to_empty_line + mark + " " + printable(line) + "\r", no_patience_ms);
    status_line_shown = true;
}

void clear_status_line()
{
    if (status_line_shown)
        write_error(back_to_empty_line, no_patience_ms);
    status_line_shown = false;
}

std::string format_text(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

std::string error_text(int error)
{
    return std::strerror(error);
}

} // namespace client
