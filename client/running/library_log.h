#pragma once

#include <string>

#include "process/failure.h"

namespace client {

// The library logs errors in runs without any, about modules that a run has no use for. So its
// lines are kept aside, and shown when something has failed.

/**
 * Keeps the latest lines of the library's log from now on, if the platform offers them.
 */
void keep_library_log();

/** What it has logged so far led to nothing bad. */
void forget_library_log();

/** Prints the kept lines and forgets them; false if there are none. */
bool show_library_log();

/**
 * The failure to throw if a library call failed; prints the kept lines first.
 * @param sentence the failed action, without a full stop
 */
Failure library_failure(const std::string& sentence);

} // namespace client
