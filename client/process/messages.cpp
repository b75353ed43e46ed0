#include "process/messages.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include <common/line_writer.h>
#include <common/printable.h>

namespace client {
namespace {

bool status_line_shown = false;

common::LineWriter& standard_error()
{
    static auto& lines = *new common::LineWriter(STDERR_FILENO);
    return lines;
}

constexpr const char* back_to_empty_line = "\r\033[K";

} // namespace

std::string printable(const std::string& text)
{
    std::string made;
    common::put_printable(text, [&made](std::string_view piece) { made += piece; });
    return made;
}

std::string printable_line(const std::string& text)
{
    // room for two paths of the greatest length
    constexpr size_t longest = 12 * 1024;
    return common::shortened(printable(text), longest);
}

void print_message(const std::string& sentence)
{
    print_error_line("screenrecord: " + sentence);
}

void print_error_line(const std::string& line)
{
    standard_error().put((status_line_shown ? back_to_empty_line : "") + printable_line(line) +
                         "\n");
    status_line_shown = false;
}

void print_status_object(const std::string& object)
{
    standard_error().put_if_idle(printable(object) + "\n");
}

void show_status_line(const std::string& mark, const std::string& line)
{
    // Ends with a carriage return, so that the output of other programs begins at the start of the
    // line.
    standard_error().put_if_idle(back_to_empty_line + mark + " " + printable(line) + "\r");
    status_line_shown = true;
}

void clear_status_line()
{
    if (status_line_shown)
        standard_error().put_if_idle(back_to_empty_line);
    status_line_shown = false;
}

void finish_messages()
{
    standard_error().flush(std::chrono::steady_clock::now() + std::chrono::seconds(1));
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
