#pragma once

#include <CLI/App.hpp>

#include "command_line/options.h"

namespace client {

/**
 * Checks the command that `app` has parsed, and runs it by `run`.
 *
 * Checks the combination of its options, and all its paths before any of them is opened: none looks
 * like an option, the ending of an output fits its format, and no output is another file of the
 * command as well. Two paths are the same file if device and inode are equal, or, for a file that
 * does not exist yet, folder and name. Throws CLI::ValidationError.
 * @param code receives the exit code
 */
void check_and_run(const CLI::App& app, const AllOptions& all, RunCommand run, int& code);

} // namespace client
