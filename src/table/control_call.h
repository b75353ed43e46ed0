/** The beginning of every control call: the lock, and the checks of its handle. */
#ifndef SCREENRECORD_TABLE_CONTROL_CALL_H
#define SCREENRECORD_TABLE_CONTROL_CALL_H

#include <mutex>

#include <zu3/types.h>

/**
 * Control calls exclude one another: they share the table, the display connection and the capture
 * registration, and they come from any client thread and, at the time limit, from a multiplexer
 * writer. Recursive, since control calls are built from one another.
 *
 * Order of locks: this one, then a middleware mutex. A worker holds its own middleware mutex while
 * it runs, so it never waits for this lock: the writer tries it, and tries again at its next pass.
 */
inline std::recursive_mutex _controlMutex;

using ControlLock = std::lock_guard<std::recursive_mutex>;

/**
 * Handle check, then initialisation gate; on true the slot's retired writer, if any, has been
 * reclaimed.
 */
bool _SCREENRECORD_CheckSlot(const u32* pu32Handle);
/** _SCREENRECORD_CheckSlot, and refuses a slot with a running module. */
bool _SCREENRECORD_CheckIdleSlot(const u32* pu32Handle);

#endif
