#pragma once

#include <CLI/App.hpp>

#include "command_line/options.h"

/** The options of each command. The parser stores their values in the record. */
namespace client {

void define_record(CLI::App& command, RecordOptions& options);
void define_replay(CLI::App& command, ReplayOptions& options);
void define_stream(CLI::App& command, StreamOptions& options);
void define_shot(CLI::App& command, ShotOptions& options);
void define_pcm(CLI::App& command, PcmOptions& options);
void define_control(CLI::App& command, ControlOptions& options);
void define_remux(CLI::App& command, RemuxOptions& options);
void define_doctor(CLI::App& command, DoctorOptions& options);

} // namespace client
