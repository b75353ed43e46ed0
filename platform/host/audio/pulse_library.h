#pragma once

#include <string>

namespace zu3host {

/**
 * Loads libpulse, once a process. It brings two dozen libraries along, 3 MiB of memory and 2 ms of
 * a program's start, which recordings without sound and screenshots do without. Nothing of libpulse
 * may be called before; from any thread.
 * @return why it cannot be loaded, empty when it is
 */
const std::string& load_pulse_library();

} // namespace zu3host
