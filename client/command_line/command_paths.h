#pragma once

#include "command_line/options.h"

namespace client {

/**
 * Judges all paths of a command before the first of them is opened: none looks like an option that
 * was meant, an output's name does not tell of another format, and nothing that is written is also
 * something else of the command, by device and inode or, where a file does not exist yet, by its
 * folder and name. Throws CLI::ValidationError.
 */
void check_paths(const Invocation& invocation);

} // namespace client
