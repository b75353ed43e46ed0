#pragma once

#include "command_line.h"
#include "exit_code.h"
#include "program_output.h"
#include "signals.h"

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
