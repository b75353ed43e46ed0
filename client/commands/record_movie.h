#pragma once

#include "commands/commands.h"
#include "files/container.h"

namespace client {

/**
 * Records screen and sound into a movie, from the library's encoded frames and PCM, until the end
 * that the options or a signal name.
 */
ExitCode record_movie(const RecordOptions& options, Container container, CommandContext& context);

} // namespace client
