#pragma once

#include "command_line/options.h"

namespace client {

/** Parses the command line. Prints the help, the version, or the error if there is one. */
Invocation read_command_line(int argc, char** argv);

} // namespace client
