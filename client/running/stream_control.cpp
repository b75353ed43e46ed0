#include "running/stream_control.h"

#include <cerrno>
#include <sstream>
#include <unistd.h>
#include <utility>
#include <vector>

#include "process/messages.h"

namespace client {
namespace {

constexpr size_t longest_line = 8192;

std::vector<std::string> words_of(const std::string& line)
{
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word);
    return words;
}

control::Command parse_bit_rate_command(const std::vector<std::string>& words)
{
    const auto rate = words.size() == 2 ? parse_bit_rate(words[1]) : std::nullopt;
    if (!rate)
        return control::Unknown{std::string("bitrate needs ") + bit_rate_form};
    return control::BitRate{*rate};
}

// The name comes first and may contain blanks, so the numbers are parsed from the end.
control::Command parse_watermark_command(std::vector<std::string> words)
{
    words.erase(words.begin());
    if (words.empty())
        return control::Unknown{"watermark needs FILE [X,Y [OPACITY]] or none"};
    WatermarkOptions options;
    if (words.size() == 1 && words[0] == "none")
        return options;
    const auto opacity = parse_number(words.back());
    if (words.size() > 2 && opacity && parse_position(words[words.size() - 2])) {
        if (*opacity > 255)
            return control::Unknown{"the opacity goes from 0 to 255"};
        options.opacity = *opacity;
        words.pop_back();
    }
    if (const auto at = parse_position(words.back()); at && words.size() > 1) {
        options.at = *at;
        words.pop_back();
    }
    for (const std::string& word : words)
        options.image += (options.image.empty() ? "" : " ") + word;
    return options;
}

} // namespace

control::Command control::parse(const std::string& line)
{
    if (line.size() > longest_line)
        return Unknown{format_text("a command has %zu bytes at most", longest_line)};
    const std::vector<std::string> words = words_of(line);
    const std::string verb = words.empty() ? "" : words[0];
    if (verb == "bitrate")
        return parse_bit_rate_command(words);
    if (verb == "watermark")
        return parse_watermark_command(words);
    if (words.size() == 1 && verb == "keyframe")
        return KeyFrame{};
    if (words.size() == 1 && verb == "pause")
        return Pause{};
    if (words.size() == 1 && verb == "resume")
        return Resume{};
    if (words.size() == 1 && verb == "stop")
        return Stop{};
    if (words.size() == 1 && verb == "save")
        return Save{};
    if (words.size() == 1 && verb == "status")
        return Status{};
    return Unknown{
        "no such command; the commands are bitrate RATE, keyframe, pause, resume, watermark FILE [X,Y [OPACITY]], watermark none, status, stop"};
}

bool on_foreground_terminal()
{
    return isatty(STDIN_FILENO) == 1 && tcgetpgrp(STDIN_FILENO) == getpgrp();
}

ControlInput::ControlInput(bool wanted) : fd_(wanted ? STDIN_FILENO : -1) {}

void ControlInput::read_lines(const std::function<void(const std::string&)>& handle)
{
    char bytes[4096];
    const ssize_t n = read(fd_, bytes, sizeof bytes);
    if (n < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (n <= 0) { // the sender is gone; the stream continues
        fd_ = -1;
        if (!unfinished_.empty() && !refused_)
            handle(unfinished_);
        return;
    }
    unfinished_.append(bytes, static_cast<size_t>(n));
    size_t start = 0;
    for (size_t end; (end = unfinished_.find('\n', start)) != std::string::npos; start = end + 1)
        if (!std::exchange(refused_, false) && end > start)
            handle(unfinished_.substr(start, end - start));
    unfinished_.erase(0, start);
    if (unfinished_.size() <= longest_line)
        return;
    // Refuses the line once; the rest up to its end is no command either.
    if (!std::exchange(refused_, true))
        handle(unfinished_);
    unfinished_.clear();
}

} // namespace client
