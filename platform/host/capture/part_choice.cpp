#include "capture/part_choice.h"

#include "base/host_log.h"

#include <cstdlib>
#include <string_view>

namespace zu3host {

namespace {

/** A setting's value; "" if it is not set. */
std::string_view setting(const char* name)
{
    const char* value = secure_getenv(name);
    return value ? value : "";
}

/** Stores what `parse` makes of a setting; false, with a log line, if it makes nothing. */
template <typename Value, typename Parse>
bool read_setting(const char* name, Parse parse, const char* expected, std::optional<Value>& value)
{
    const std::string_view text = setting(name);
    if (text.empty())
        return true;
    value = parse(text);
    if (!value)
        HOST_LOGE("%s=\"%.*s\" is not %s.", name, static_cast<int>(text.size()), text.data(),
                  expected);
    return value.has_value();
}

std::optional<bool> parse_switch(std::string_view text)
{
    if (text == "0" || text == "1")
        return text == "1";
    return std::nullopt;
}

} // namespace

std::optional<common::ScreenPart> chosen_screen_part()
{
    common::ScreenPart part;
    std::optional<bool> pointer;
    if (!read_setting("ZU3_REGION", common::parse_region, "a region such as 640x360+100+50",
                      part.region) ||
        !read_setting("ZU3_WINDOW", common::parse_window,
                      "\"active\" or a window's number such as 0x1c00003", part.window) ||
        !read_setting("ZU3_POINTER", parse_switch, "0 (without the pointer) or 1 (with it)",
                      pointer))
        return std::nullopt;
    part.monitor = setting("ZU3_MONITOR");
    part.pointer = pointer.value_or(true);
    if (part.region.has_value() + part.window.has_value() + !part.monitor.empty() <= 1)
        return part;
    HOST_LOGE(
        "Only one of ZU3_REGION, ZU3_MONITOR and ZU3_WINDOW can name the part of the screen that is captured.");
    return std::nullopt;
}

} // namespace zu3host
