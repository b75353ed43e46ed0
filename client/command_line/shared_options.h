#pragma once

#include <CLI/App.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "command_line/options.h"

/** The kinds of options, and the options that several commands have. */
namespace client {

/**
 * Defines an option with a value.
 * @param parse stores the value; returns why it refuses it, as the end of a sentence, or ""
 */
CLI::Option* define_value(CLI::App& command, const char* names, const char* type, const char* text,
                          std::function<std::string(const std::string&)> parse);

/** A whole number from `low` to `high`. */
CLI::Option* define_number(CLI::App& command, const char* names, const char* type, const char* text,
                           uint32_t low, uint32_t high, std::function<void(uint32_t)> set);

/**
 * One of some words.
 * @param choices as help shows them: "a|b|c"
 */
CLI::Option* define_choice(CLI::App& command, const char* names, const char* choices,
                           const char* text, std::function<void(const std::string&)> set);

/** -o, required, with -y and -v. */
CLI::Option* define_output(CLI::App& command, CommonOptions& options, const char* type,
                           const char* text);
/** --display */
void define_display(CLI::App& command, CommonOptions& options);
/** --ask */
void define_ask(CLI::App& command, CommonOptions& options);
/**
 * --sound, and --no-audio if `audio` is not null
 * @param audio becomes false with "none" or --no-audio; null = none is refused later
 */
void define_sound(CLI::App& command, CommonOptions& options, bool* audio);
/** -t */
void define_time(CLI::App& command, CommonOptions& options);
/** -s, a size that can be captured */
void define_size(CLI::App& command, std::optional<Size>& size, const char* text);
/** --region, --monitor and --window */
void define_parts(CLI::App& command, ScreenOptions& options);
/** --no-pointer */
void define_pointer(CLI::App& command, ScreenOptions& options);
/** -r */
void define_fps(CLI::App& command, uint32_t& fps);
/** -b, bits per second */
void define_bit_rate(CLI::App& command, std::optional<uint32_t>& bit_rate, const char* text);
/** --quality, x264's rate factor */
void define_quality(CLI::App& command, std::optional<uint32_t>& quality, const char* text);
/** --json and --status-file */
void define_status(CLI::App& command, bool& json, std::string& status_file);

} // namespace client
