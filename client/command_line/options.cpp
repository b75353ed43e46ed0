#include "command_line/options.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <numeric>
#include <utility>

#include "process/messages.h"
#include <common/encoder_limits.h>

namespace client {
namespace {

/** bit/s */
constexpr uint32_t lowest_bit_rate = 10'000;

template <typename Number> std::optional<Number> parse_whole(std::string_view text)
{
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || text.empty())
        return std::nullopt;
    return value;
}

/** A decimal number with an optional fraction; nullopt for a sign, an exponent or a word. */
std::optional<double> parse_decimal(std::string_view text)
{
    double value = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value) ||
        text.starts_with('-'))
        return std::nullopt;
    return value;
}

/** "[HH:]MM:SS"; only the last part may have a fraction, only the first may exceed 59. */
std::optional<double> clock_seconds(std::string_view text)
{
    double seconds = 0;
    for (int parts = 1; parts <= 3; ++parts) {
        const size_t colon = text.find(':');
        const std::string_view part = text.substr(0, colon);
        const bool last = colon == std::string_view::npos;
        const auto number = parse_decimal(part);
        if (!number || (parts > 1 && *number >= 60) ||
            (!last && part.find('.') != std::string_view::npos))
            return std::nullopt;
        seconds = seconds * 60 + *number;
        if (last)
            return seconds;
        text.remove_prefix(colon + 1);
    }
    return std::nullopt;
}

/** "1h2m3.5s", in which any part may be missing, or a plain number of seconds. */
std::optional<double> unit_seconds(std::string_view text)
{
    if (const auto plain = parse_decimal(text))
        return plain;
    double seconds = 0;
    for (const auto& [unit, length] : {std::pair{'h', 3600}, {'m', 60}, {'s', 1}}) {
        const size_t end = text.find(unit);
        if (end == std::string_view::npos)
            continue;
        const auto number = parse_decimal(text.substr(0, end));
        if (!number)
            return std::nullopt;
        seconds += *number * length;
        text.remove_prefix(end + 1);
    }
    return text.empty() ? std::optional(seconds) : std::nullopt;
}

} // namespace

std::optional<uint32_t> parse_number(std::string_view text)
{
    return parse_whole<uint32_t>(text);
}

std::optional<Size> parse_size(std::string_view text)
{
    const size_t cross = text.find('x');
    if (cross == std::string_view::npos)
        return std::nullopt;
    const auto width = parse_number(text.substr(0, cross));
    const auto height = parse_number(text.substr(cross + 1));
    if (!width || !height)
        return std::nullopt;
    return Size{*width, *height};
}

std::optional<std::chrono::duration<double>> parse_time(std::string_view text)
{
    const auto seconds =
        text.find(':') != std::string_view::npos ? clock_seconds(text) : unit_seconds(text);
    if (!seconds || !(*seconds > 0) || *seconds > 1e7)
        return std::nullopt;
    return std::chrono::duration<double>(*seconds);
}

std::vector<std::string> choices_of(std::string_view text)
{
    std::vector<std::string> words;
    while (true) {
        const size_t end = text.find('|');
        words.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos)
            return words;
        text.remove_prefix(end + 1);
    }
}

std::string listed(const std::vector<std::string>& words, const char* last)
{
    std::string list;
    for (size_t i = 0; i < words.size(); ++i)
        list += (i == 0 ? "" : i + 1 < words.size() ? ", " : format_text(" %s ", last)) + words[i];
    return list;
}

std::optional<std::string> nearest_word(const std::string& typed,
                                        const std::vector<std::string>& words)
{
    const auto distance =
        [&typed](const std::string& word) { // Levenshtein's, a swap of neighbours counts two
            std::vector<size_t> row(word.size() + 1);
            std::iota(row.begin(), row.end(), size_t{0});
            for (size_t i = 1; i <= typed.size(); ++i) {
                size_t diagonal = std::exchange(row[0], i);
                for (size_t j = 1; j <= word.size(); ++j)
                    diagonal =
                        std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1,
                                                        diagonal + (typed[i - 1] != word[j - 1])}));
            }
            return row.back();
        };
    const auto nearest =
        std::min_element(words.begin(), words.end(),
                         [&](const auto& a, const auto& b) { return distance(a) < distance(b); });
    if (nearest == words.end() || distance(*nearest) > 2)
        return std::nullopt;
    return *nearest;
}

std::optional<uint32_t> parse_bit_rate(std::string_view text)
{
    double unit = 1;
    if (text.ends_with('k') || text.ends_with('K'))
        unit = 1e3;
    else if (text.ends_with('m') || text.ends_with('M'))
        unit = 1e6;
    if (unit > 1)
        text.remove_suffix(1);
    const auto number = parse_decimal(text);
    if (!number)
        return std::nullopt;
    const double rate = std::round(*number * unit);
    if (rate < lowest_bit_rate || rate > common::greatest_bit_rate)
        return std::nullopt;
    return static_cast<uint32_t>(rate);
}

std::optional<uint32_t> parse_quality(std::string_view text)
{
    // A difference of 6 doubles or halves the bits.
    for (const auto& [word, factor] : {std::pair<std::string_view, uint32_t>{"low", 28},
                                       {"medium", usual_quality},
                                       {"high", 18}})
        if (text == word)
            return factor;
    const auto number = parse_number(text);
    return number && *number <= common::worst_quality ? number : std::nullopt;
}

std::optional<Position> parse_position(std::string_view text)
{
    const size_t comma = text.find(',');
    if (comma == std::string_view::npos)
        return std::nullopt;
    const auto x = parse_whole<int32_t>(text.substr(0, comma));
    const auto y = parse_whole<int32_t>(text.substr(comma + 1));
    if (!x || !y)
        return std::nullopt;
    return Position{*x, *y};
}

std::optional<uint32_t> parse_level(std::string_view text)
{
    const std::vector<std::string> names = choices_of(level_names);
    const auto found = std::find(names.begin(), names.end(), text);
    if (found == names.end())
        return std::nullopt;
    return 1u << (found - names.begin());
}

} // namespace client
