#pragma once

#include "command_line/options.h"

namespace client {

/** Reads the command line. Prints the help, the version, or the error in it. */
Invocation read_command_line(int argc, char** argv);

} // namespace client
