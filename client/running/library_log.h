#pragma once

#include <string>

#include "process/messages.h"

namespace client {

// The library logs errors even in successful runs, for each module that a run does not use. So its
// lines are kept and shown only after a failure.

/** Starts to keep the latest lines of the log, if the platform offers them. */
void keep_library_log();

/** Forgets the kept lines: they led to no failure. */
void forget_library_log();

/** Prints the kept lines and forgets them; false if there are none. */
bool show_library_log();

/**
 * The failure to throw if a library call failed; prints the kept lines first.
 * @param sentence the failed action, without a full stop
 */
Failure library_failure(const std::string& sentence);

} // namespace client
