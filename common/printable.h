#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace common {

/**
 * Characters that a terminal obeys instead of showing them, or that change the order of those
 * around.
 */
constexpr bool is_control_character(char32_t c)
{
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x061C || c == 0x200E || c == 0x200F ||
           (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069) || c == 0xFEFF;
}

/**
 * Bytes of the UTF-8 character that `text`, which is not empty, begins with; 0 if it begins with
 * none, or with a control character.
 */
constexpr size_t printable_length(std::string_view text)
{
    const auto byte = [text](size_t at) { return static_cast<uint8_t>(text[at]); };
    if (byte(0) < 0x80)
        return is_control_character(byte(0)) ? 0 : 1;
    const size_t length = byte(0) < 0xC2   ? 0
                          : byte(0) < 0xE0 ? 2
                          : byte(0) < 0xF0 ? 3
                          : byte(0) < 0xF5 ? 4
                                           : 0;
    if (length == 0 || text.size() < length)
        return 0;
    char32_t c = byte(0) & (0xFFu >> (length + 1));
    for (size_t at = 1; at < length; ++at) {
        if ((byte(at) & 0xC0) != 0x80)
            return 0;
        c = c << 6 | (byte(at) & 0x3F);
    }
    constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = c >= 0xD800 && c < 0xE000;
    return c < least[length] || c > 0x10FFFF || surrogate || is_control_character(c) ? 0 : length;
}

/**
 * Hands `text` to `put`, piece by piece, without what drives a terminal: each byte of a control
 * character, and each that is not UTF-8, becomes an escape such as "\x1b". Does not allocate.
 * @param own control characters in here pass
 */
template <typename Put>
void put_printable(std::string_view text, Put put, std::string_view own = {})
{
    while (!text.empty()) {
        size_t length = printable_length(text);
        if (length == 0 && own.find(text[0]) != std::string_view::npos)
            length = 1;
        if (length > 0) {
            put(text.substr(0, length));
        } else {
            char escaped[8];
            const int size =
                std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<uint8_t>(text[0]));
            put(std::string_view(escaped, static_cast<size_t>(size)));
            length = 1;
        }
        text.remove_prefix(length);
    }
}

/** `text`, or if it has more than `most` bytes, its begin and its end around "...". */
inline std::string shortened(std::string text, size_t most)
{
    constexpr std::string_view dots = "...";
    if (text.size() <= most)
        return text;
    const auto splits_character = [&text](size_t at) {
        return (static_cast<uint8_t>(text[at]) & 0xC0) == 0x80;
    };
    const size_t kept = most - dots.size();
    size_t head = kept / 2, tail = text.size() - (kept - head);
    while (head > 0 && splits_character(head))
        --head;
    while (tail < text.size() && splits_character(tail))
        ++tail;
    return text.replace(head, tail - head, dots);
}

} // namespace common
