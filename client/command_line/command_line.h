#pragma once

#include "command_line/options.h"

namespace client {

/**
 * Parses the command line and runs its command by `run`. Prints the help, the version, or the error
 * if there is one.
 * @return the program's exit code
 */
int run_command_line(int argc, char** argv, RunCommand run);

} // namespace client
