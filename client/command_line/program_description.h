#pragma once

#include <CLI/App.hpp>
#include <span>

#include "command_line/options.h"

namespace client {

/** Everything that options are read into, while the command is not known yet. */
struct AllOptions {
    RecordOptions record;
    StreamOptions stream;
    ShotOptions shot;
    PcmOptions pcm;
    RemuxOptions remux;
    DevicesOptions devices;
    DoctorOptions doctor;
};

/**
 * The whole command line: what it is read by, and what help, the manual page and the completions
 * are made from.
 */
void describe_program(CLI::App& app, AllOptions& all);

/** The command whose one word is the name of another. */
inline constexpr const char* help_command = "help";

/** Something that is explained beside the options. */
struct Term {
    const char* name;
    const char* text;
};

/** A heading and its terms, as help and manual page show them below the options. */
struct Section {
    const char* title;
    std::span<const Term> terms;
};
std::span<const Section> sections();

} // namespace client
