#include "base/border.h"
#include "base/host_log.h"
#include "log/log_filter.h"
#include "zu3_host/log_listener.h"
#include <common/line_writer.h>
#include <common/printable.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <unistd.h>

namespace {

/**
 * One call's lines, cut where they do not fit. A pipe takes as many bytes without mixing in another
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
        static const zu3host::LogFilter& only =
            *new zu3host::LogFilter(secure_getenv("ANDROID_LOG_TAGS"));
        return only.shows(priority, tag);
    };
    return zu3host::answer_or(true, shows, [](const char*) {});
}

/**
 * Every line of a message gets the prefix of its own; line breaks at the end make no empty lines.
 * Of control characters only those of the format pass, which the library colours some lines with.
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

// Nobody waits long for who does not read: a log must not hold up a recording, nor its end.
constexpr std::chrono::milliseconds patience_at_the_end(200);

/** Standard error; never destroyed, and made without memory, which may be what a line is about. */
common::LineWriter& standard_error()
{
    alignas(common::LineWriter) static std::byte memory[sizeof(common::LineWriter)];
    static common::LineWriter& lines = []() -> common::LineWriter& {
        std::atexit([] { zu3host::flush_log(patience_at_the_end); });
        return *new (memory) common::LineWriter(STDERR_FILENO);
    }();
    return lines;
}

std::atomic<zu3_host_log_listener_t> log_listener{nullptr};

/** What snprintf left in a buffer of `capacity` bytes, given its result. */
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
    // A caller's errno is not the log's to change: messages stand between a failure and what is
    // made of it.
    const int kept_errno = errno;
    std::array<char, 128> prefix;
    const int prefix_length = std::snprintf(prefix.data(), prefix.size(),
                                            "%c/%-8s(%5d): ", zu3host::priority_letter(prio), tag,
                                            static_cast<int>(getpid()));
    std::array<char, 3584> message;
    va_list arguments;
    va_start(arguments, fmt);
    errno = kept_errno;
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
