#pragma once

#include "commands/commands.h"
#include "files/output_format.h"

namespace client {

/**
 * Records screen and sound into a movie, from the encoded frames and PCM of the library, until the
 * time limit or a stop.
 */
ExitCode record_movie(const RecordOptions& options, Container container, CommandContext& context);

} // namespace client
