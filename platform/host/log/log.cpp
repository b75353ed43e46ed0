#include "log/log.h"

#include "base/border.h"
#include "base/host_log.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <common/line_writer.h>
#include <common/never_destroyed.h>
#include <common/printable.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <unistd.h>
#include <zu3_host/log_listener.h>

namespace zu3host {

namespace {

constexpr std::string_view letters = "VDIWEFS";
constexpr std::string_view separators = " \t,";

std::optional<int> priority_of(std::string_view text)
{
    if (text.size() != 1)
        return std::nullopt;
    const auto at =
        letters.find(static_cast<char>(std::toupper(static_cast<unsigned char>(text[0]))));
    if (at == std::string_view::npos)
        return std::nullopt;
    return ANDROID_LOG_VERBOSE + static_cast<int>(at);
}

} // namespace

LogFilter::LogFilter(const char* expressions)
{
    std::string_view rest = expressions ? expressions : "";
    while (true) {
        const size_t start = rest.find_first_not_of(separators);
        if (start == std::string_view::npos)
            return;
        rest.remove_prefix(start);
        const size_t length = std::min(rest.find_first_of(separators), rest.size());
        add(rest.substr(0, length));
        rest.remove_prefix(length);
    }
}

void LogFilter::add(std::string_view word)
{
    const size_t colon = word.rfind(':');
    const std::string_view tag = word.substr(0, colon);
    const auto least =
        colon == std::string_view::npos ? ANDROID_LOG_VERBOSE : priority_of(word.substr(colon + 1));
    if (tag.empty() || !least)
        return;
    if (tag == "*")
        least_of_others_ = *least;
    else
        rules_.push_back({std::string(tag), *least});
}

bool LogFilter::shows(int priority, std::string_view tag) const
{
    const auto rule = std::find_if(rules_.rbegin(), rules_.rend(),
                                   [tag](const Rule& each) { return each.tag == tag; });
    return priority >= (rule == rules_.rend() ? least_of_others_ : rule->least);
}

char priority_letter(int priority)
{
    const int nearest = std::clamp<int>(priority, ANDROID_LOG_VERBOSE, ANDROID_LOG_FATAL);
    return letters[static_cast<size_t>(nearest - ANDROID_LOG_VERBOSE)];
}

} // namespace zu3host

namespace {

/**
 * One call's lines, cut if they do not fit. A pipe accepts as many bytes without mixing in another
 * writer's.
 */
class LineBuffer {
public:
    void put(std::string_view text)
    {
        size_ += text.copy(bytes_.data() + size_, bytes_.size() - size_);
    }
    void end_line()
    {
        if (size_ == bytes_.size())
            --size_;
        bytes_[size_++] = '\n';
    }
    std::string_view text() const { return {bytes_.data(), size_}; }

private:
    std::array<char, 4096> bytes_;
    size_t size_ = 0;
};

// Read once: the environment is not to be touched while other threads run. Without memory for the
// rules, which may be what the line is about, the line is shown.
bool is_shown(int priority, const char* tag)
{
    const auto shows = [=] {
        static common::NeverDestroyed<zu3host::LogFilter> only(secure_getenv("ANDROID_LOG_TAGS"));
        return only->shows(priority, tag);
    };
    return zu3host::answer_or(true, shows, [](const char*) {});
}

/**
 * Puts the prefix before every line of a message; line breaks at the end add no empty lines.
 * Escapes control characters, except those of the format, with which the library colors lines.
 */
void put_lines(LineBuffer& out, std::string_view prefix, std::string_view message,
               std::string_view format)
{
    while (message.ends_with('\n'))
        message.remove_suffix(1);
    while (true) {
        const size_t length = std::min(message.find('\n'), message.size());
        out.put(prefix);
        common::put_printable(
            message.substr(0, length), [&out](std::string_view piece) { out.put(piece); }, format);
        out.end_line();
        if (length == message.size())
            return;
        message.remove_prefix(length + 1);
    }
}

// A log that is not read must not hold up a recording, nor its end.
constexpr std::chrono::milliseconds patience_at_the_end(200);

/** Standard error; made without memory, the lack of which a line may report. */
common::LineWriter& standard_error()
{
    static common::NeverDestroyed<common::LineWriter> lines(STDERR_FILENO);
    static const int flushed_at_exit = std::atexit([] { zu3host::flush_log(patience_at_the_end); });
    static_cast<void>(flushed_at_exit);
    return *lines;
}

std::atomic<zu3_host_log_listener_t> log_listener{nullptr};

/** The text that snprintf wrote to a buffer of `capacity` bytes, from its result. */
std::string_view formatted(const char* buffer, size_t capacity, int result)
{
    return {buffer, result < 0 ? 0 : std::min(static_cast<size_t>(result), capacity - 1)};
}

} // namespace

namespace zu3host {

void flush_log(std::chrono::milliseconds patience)
{
    standard_error().flush(std::chrono::steady_clock::now() + patience);
}

} // namespace zu3host

HOST_EXPORT void zu3_host_listen_to_log(zu3_host_log_listener_t listener)
{
    log_listener = listener;
}

HOST_EXPORT int __android_log_print(int prio, const char* tag, const char* fmt, ...)
{
    if (!tag)
        tag = "";
    const bool shown = is_shown(prio, tag);
    const zu3_host_log_listener_t listener =
        prio >= ANDROID_LOG_WARN ? log_listener.load() : nullptr;
    if (!shown && !listener)
        return 0;
    // Keeps the caller's errno: a message often stands between a failure and its report.
    const int kept_errno = errno;
    std::array<char, 128> prefix;
    const int prefix_length = std::snprintf(prefix.data(), prefix.size(),
                                            "%c/%-8s(%5d): ", zu3host::priority_letter(prio), tag,
                                            static_cast<int>(getpid()));
    std::array<char, 3584> message;
    va_list arguments;
    va_start(arguments, fmt);
    errno = kept_errno;
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): clang 14 does not see va_start
    const int length = std::vsnprintf(message.data(), message.size(), fmt, arguments);
    va_end(arguments);

    LineBuffer out;
    put_lines(out, formatted(prefix.data(), prefix.size(), prefix_length),
              formatted(message.data(), message.size(), length), fmt);
    if (listener)
        listener(tag, out.text().data(), static_cast<uint32_t>(out.text().size()));
    const int result = shown ? standard_error().put(out.text()) : 0;
    errno = kept_errno;
    return result;
}
