#ifndef SCREENRECORD_TABLE_CONTROL_LOCK_H
#define SCREENRECORD_TABLE_CONTROL_LOCK_H

#include <mutex>

/**
 * Control calls exclude one another: they share the table, the display connection and the capture
 * registration, and they come from any client thread and, at the time limit, from a multiplexer writer.
 * Recursive, since control calls are built from one another.
 *
 * Order of locks: this one, then a middleware mutex. A worker holds its own middleware mutex while it runs,
 * so it never waits for this lock: the writer tries it, and tries again at its next pass.
 */
inline std::recursive_mutex _controlMutex;

using ControlLock = std::lock_guard<std::recursive_mutex>;

#endif
