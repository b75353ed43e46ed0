#pragma once

#include "command_line/options.h"
#include "process/failure.h"
#include "process/signals.h"
#include "process/standard_output.h"

namespace client {

/** What every command works with. */
struct Surroundings {
    StopSignals& signals;
    ProgramOutput& output;
};

/** Each runs a command to its end; a Failure says why it could not. */
ExitCode run(const RecordOptions& options, Surroundings& surroundings);
ExitCode run(const StreamOptions& options, Surroundings& surroundings);
ExitCode run(const ShotOptions& options, Surroundings& surroundings);
ExitCode run(const PcmOptions& options, Surroundings& surroundings);
ExitCode run(const DevicesOptions& options, Surroundings& surroundings);
ExitCode run(const DoctorOptions& options, Surroundings& surroundings);

} // namespace client
