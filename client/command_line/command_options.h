#pragma once

#include <CLI/App.hpp>

#include "command_line/options.h"

namespace client {

/** Each defines the options of a command: names, texts, limits and forbidden combinations. */
void define_record(CLI::App& command, RecordOptions& options);
void define_stream(CLI::App& command, StreamOptions& options);
void define_shot(CLI::App& command, ShotOptions& options);
void define_pcm(CLI::App& command, PcmOptions& options);
void define_remux(CLI::App& command, RemuxOptions& options);
void define_doctor(CLI::App& command, DoctorOptions& options);

} // namespace client
