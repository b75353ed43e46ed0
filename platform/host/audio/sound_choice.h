#pragma once

#include "audio/pulse_module.h"

#include <vector>

namespace zu3host {

/**
 * The sources of the sound server that ZU3_SOUND asks for: none, one, or two to be mixed. Unset
 * means the desktop.
 */
std::vector<WantedSource> wanted_sources();

/**
 * Throws std::invalid_argument if ZU3_SOUND names a source that the sound server lacks. A server
 * that does not answer within 3 s accepts any name. Connects only if a name is given.
 */
void check_sound_choice();

/** The source's name in log lines. */
const char* called(const WantedSource& source);

} // namespace zu3host
