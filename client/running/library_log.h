#pragma once

#include <string>

#include "process/failure.h"

namespace client {

// The library logs errors in runs without any, about modules that a run has no use for. So its
// lines are kept aside, and shown when something has failed.

/**
 * Keeps what the library logs from now on, the latest of it, where the platform lets us hear that.
 */
void keep_library_log();

/** What it has logged so far led to nothing bad. */
void forget_library_log();

/** Shows what is kept, and keeps it no longer; false when there was nothing. */
bool show_library_log();

/**
 * What to throw when the library refused something: shows its reasons first, where they are kept.
 * @param sentence what cannot be done, without an end
 */
Failure library_failure(const std::string& sentence);

} // namespace client
