#pragma once

#include <functional>

#include "process/signals.h"

namespace client {

/**
 * Makes calls of the library that may wait for the display. After a stop request a display that
 * does not answer has half a second; then the calls fail, and Failure says that. Reads `signals`
 * meanwhile, so the calls must not.
 */
void attend_display(StopSignals& signals, const std::function<void()>& calls);

} // namespace client
