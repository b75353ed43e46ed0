#pragma once

#include "machine/display.h"
#include "process/signals.h"

namespace client {

/**
 * As display_to_capture(), which may wait for minutes while the desktop asks its user for a screen:
 * a message says so, and a stop request ends the wait with a Failure.
 */
DisplayInfo attended_display_to_capture(StopSignals& signals);

} // namespace client
