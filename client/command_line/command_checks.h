#pragma once

#include <CLI/App.hpp>

#include "command_line/options.h"

namespace client {

/**
 * Checks all paths of a command before any of them is opened: none looks like an option, the ending
 * of an output fits its format, and no output is another file of the command as well. Two paths are
 * the same file if device and inode are equal, or, for a file that does not exist yet, folder and
 * name. Throws CLI::ValidationError.
 */
void check_paths(const Invocation& invocation);

/**
 * Each checks a command's combination of options. Throws CLI::ValidationError.
 * @param command tells which options are given
 */
void check_record(const CLI::App& command, const RecordOptions& options);
void check_shot(const ShotOptions& options);

} // namespace client
