#include "log/log_filter.h"

#include <algorithm>
#include <cctype>
#include <optional>

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
