#include "common/screen_part.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

namespace common {
namespace {

/** Reads a number at the start of `text`, and goes behind it. */
template <typename Number> std::optional<Number> take_number(std::string_view& text, int base = 10)
{
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc())
        return std::nullopt;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return value;
}

/** Reads a number behind `mark`. */
template <typename Number>
std::optional<Number> take_number_behind(char mark, std::string_view& text)
{
    if (!text.starts_with(mark))
        return std::nullopt;
    text.remove_prefix(1);
    return take_number<Number>(text);
}

/** The overlap of two spans of `length` from `start` on: its start and length, 0 = none. */
std::pair<int32_t, uint32_t> common_span(int32_t a_start, uint32_t a_length, int32_t b_start,
                                         uint32_t b_length)
{
    const int64_t start = std::max(a_start, b_start);
    const int64_t end = std::min(int64_t{a_start} + a_length, int64_t{b_start} + b_length);
    return {static_cast<int32_t>(start), static_cast<uint32_t>(std::max<int64_t>(end - start, 0))};
}

/** A setting's value; "" if it is not set. */
std::string_view setting(const char* name)
{
    const char* value = secure_getenv(name);
    return value ? value : "";
}

/** Parses a setting into `value`; false, with a problem, if it is invalid. */
template <typename Value, typename Parse>
bool read_setting(const char* name, Parse parse, const char* expected, std::optional<Value>& value,
                  std::string& problem)
{
    const std::string_view text = setting(name);
    if (text.empty())
        return true;
    value = parse(text);
    if (!value)
        problem = std::string(name) + "=\"" + std::string(text) + "\" is not " + expected;
    return value.has_value();
}

std::optional<bool> parse_switch(std::string_view text)
{
    if (text == "0" || text == "1")
        return text == "1";
    return std::nullopt;
}

} // namespace

std::optional<ScreenPart> screen_part_of_environment(std::string& problem)
{
    ScreenPart part;
    std::optional<bool> pointer;
    if (!read_setting("ZU3_REGION", parse_region, "a region such as 640x360+100+50", part.region,
                      problem) ||
        !read_setting("ZU3_WINDOW", parse_window,
                      "\"active\" or a window's number such as 0x1c00003", part.window, problem) ||
        !read_setting("ZU3_POINTER", parse_switch, "0 (without the pointer) or 1 (with it)",
                      pointer, problem))
        return std::nullopt;
    part.monitor = setting("ZU3_MONITOR");
    part.pointer = pointer.value_or(true);
    if (!part.window || (!part.region && part.monitor.empty()))
        return part;
    problem = "ZU3_WINDOW cannot be combined with ZU3_REGION or ZU3_MONITOR";
    return std::nullopt;
}

std::optional<ScreenRegion> parse_region(std::string_view text)
{
    const auto width = take_number<uint32_t>(text);
    const auto height = take_number_behind<uint32_t>('x', text);
    const auto x = take_number_behind<int32_t>('+', text);
    const auto y = take_number_behind<int32_t>('+', text);
    if (!width || !height || !x || !y || !text.empty() || *width == 0 || *height == 0)
        return std::nullopt;
    return ScreenRegion{*x, *y, {*width, *height}};
}

std::optional<uint32_t> parse_window(std::string_view text)
{
    if (text == "active")
        return ScreenPart::active_window;
    const bool hexadecimal = text.starts_with("0x");
    if (hexadecimal)
        text.remove_prefix(2);
    const auto number = take_number<uint32_t>(text, hexadecimal ? 16 : 10);
    return number && *number != 0 && text.empty() ? number : std::nullopt;
}

std::string region_text(const ScreenRegion& region)
{
    return std::to_string(region.size.width) + "x" + std::to_string(region.size.height) + "+" +
           std::to_string(region.x) + "+" + std::to_string(region.y);
}

std::optional<ScreenRegion> overlap(const ScreenRegion& a, const ScreenRegion& b)
{
    const auto [x, width] = common_span(a.x, a.size.width, b.x, b.size.width);
    const auto [y, height] = common_span(a.y, a.size.height, b.y, b.size.height);
    if (width == 0 || height == 0)
        return std::nullopt;
    return ScreenRegion{x, y, {width, height}};
}

} // namespace common
