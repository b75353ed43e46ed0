#pragma once

#include "command_line/options.h"
#include "files/output_format.h"
#include "process/messages.h"
#include "process/signals.h"
#include "process/standard_output.h"

namespace client {

/** The parts of the program that every command uses. */
struct CommandContext {
    StopSignals& signals;
    ProgramOutput& output;
};

/**
 * Runs the command that the command line names, and prints the reason if it fails.
 * @return the program's exit code
 */
int run(const Invocation& invocation);

/** Each runs a command to its end; throws Failure. */
ExitCode run(const RecordOptions& options, CommandContext& context);
ExitCode run(const ReplayOptions& options, CommandContext& context);
ExitCode run(const StreamOptions& options, CommandContext& context);
ExitCode run(const ShotOptions& options, CommandContext& context);
ExitCode run(const PcmOptions& options, CommandContext& context);
ExitCode run(const RemuxOptions& options, CommandContext& context);
ExitCode run(const DevicesOptions& options, CommandContext& context);
ExitCode run(const DoctorOptions& options, CommandContext& context);
ExitCode run(const ControlOptions& options, CommandContext& context);

/**
 * Records screen and sound into a movie, from the encoded frames and PCM of the library, until the
 * time limit or a stop.
 */
ExitCode record_movie(const RecordOptions& options, Container container, CommandContext& context);

} // namespace client
