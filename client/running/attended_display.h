#pragma once

#include "machine/display.h"
#include "process/signals.h"

namespace client {

/**
 * Calls display_to_capture(), which may wait minutes for the user to answer the desktop's dialog.
 * Prints a message meanwhile; a stop request ends the wait with a Failure.
 */
DisplayInfo attended_display_to_capture(StopSignals& signals);

} // namespace client
