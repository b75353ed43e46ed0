#include "running/library_log.h"

#include <deque>
#include <mutex>
#include <new>
#include <string_view>

#include "machine/host.h"
#include "process/messages.h"

namespace client {
namespace {

constexpr size_t most_lines = 50;

struct KeptLines {
    std::mutex mutex;
    std::deque<std::string> lines;
};

// Never destroyed: the library's threads may log until the process ends.
KeptLines& kept()
{
    static auto& lines = *new KeptLines;
    return lines;
}

// Every stop logs this for each module that the recording did not use.
bool explains_nothing(std::string_view line)
{
    return line.find("handle is NULL") != line.npos;
}

void keep(const char* tag, const char* text, uint32_t size)
try {
    if (std::string_view(tag) != "screenrecord")
        return;
    std::string_view rest(text, size);
    const std::lock_guard lock(kept().mutex);
    for (size_t end; (end = rest.find('\n')) != rest.npos; rest.remove_prefix(end + 1)) {
        if (!explains_nothing(rest.substr(0, end)))
            kept().lines.emplace_back(rest.substr(0, end));
        if (kept().lines.size() > most_lines)
            kept().lines.pop_front();
    }
} catch (const std::bad_alloc&) { // the caller is C, and the line is not essential
}

} // namespace

void keep_library_log()
{
    listen_to_host_log(keep);
}

void forget_library_log()
{
    const std::lock_guard lock(kept().mutex);
    kept().lines.clear();
}

bool show_library_log()
{
    std::deque<std::string> lines;
    {
        const std::lock_guard lock(kept().mutex);
        lines.swap(kept().lines);
    }
    for (const std::string& line : lines)
        print_error_line(line);
    return !lines.empty();
}

Failure library_failure(const std::string& sentence)
{
    return Failure(sentence + (show_library_log() ? ", for the reasons above"
                                                  : "; --verbose shows its reasons"));
}

} // namespace client
