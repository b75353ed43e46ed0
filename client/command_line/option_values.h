#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "machine/display.h"

namespace client {

/** A place in a picture, pixels from its top left corner; may lie outside. */
struct Position {
    int32_t x = 0;
    int32_t y = 0;
    bool operator==(const Position&) const = default;
};

/** "WxH", decimal; nullopt otherwise. size_problem() tells whether it can be captured. */
std::optional<Size> parse_size(std::string_view text);

/** Limits of a bit rate in bits per second: no level of the encoder allows more. */
inline constexpr uint32_t lowest_bit_rate = 10'000;
inline constexpr uint32_t greatest_bit_rate = 240'000'000;

/**
 * A bit rate within these limits: a number with an optional fraction and an optional suffix, k
 * (1000) or M (1000000) in either case.
 */
std::optional<uint32_t> parse_bit_rate(std::string_view text);

/** x264's rate factor, 0 to 51, by number or as low, medium or high. */
std::optional<uint32_t> parse_quality(std::string_view text);

/** "X,Y", each with an optional minus sign; nullopt with a plus sign. */
std::optional<Position> parse_position(std::string_view text);

/** "10", "10s", "1h2m3.5s", "01:30" or "00:01:30": more than 0 and at most 10000000 seconds. */
std::optional<std::chrono::duration<double>> parse_time(std::string_view text);

/** The words of "a|b|c". */
std::vector<std::string> choices_of(std::string_view text);

/** The words as a list in a sentence: "a, b or c" if `last` is "or". */
std::string listed(const std::vector<std::string>& words, const char* last);

/** The word of `words` that is most like `typed`; nullopt if none is similar. */
std::optional<std::string> nearest_word(const std::string& typed,
                                        const std::vector<std::string>& words);

/** A whole number from 0 to 4294967295 without surrounding text. */
std::optional<uint32_t> parse_number(std::string_view text);

/** The level codes of CapEnc_OpenParams for "1", "1b", "1.1" ... "4.1". */
std::optional<uint32_t> parse_level(std::string_view text);

} // namespace client
