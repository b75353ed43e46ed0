#pragma once

#include <CLI/App.hpp>
#include <span>

#include "command_line/options.h"

namespace client {

/**
 * Describes the whole command line, for the parser, the help, the manual page and the completions.
 */
void describe_program(CLI::App& app, AllOptions& all);

/** The command that explains another one. */
inline constexpr const char* help_command = "help";

/** A signal, exit code or environment variable. */
struct Term {
    const char* name;
    const char* text;
};

/** A heading and its terms, shown by help and manual page below the options. */
struct Section {
    const char* title;
    std::span<const Term> terms;
};
std::span<const Section> sections();

} // namespace client
