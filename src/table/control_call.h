/** The start of every control call: the lock and the handle checks. */
#ifndef SCREENRECORD_TABLE_CONTROL_CALL_H
#define SCREENRECORD_TABLE_CONTROL_CALL_H

#include <mutex>

#include <zu3/types.h>

/**
 * Control calls exclude one another, because they share the table, the display connection and the
 * capture registration. They come from any client thread and, at the time limit, from a multiplexer
 * writer. Recursive, because control calls call one another.
 *
 * Lock order: this one, then a middleware mutex. A running worker owns its middleware mutex, so it
 * must not wait for this lock: the writer tries it once per pass.
 */
inline std::recursive_mutex _controlMutex;

using ControlLock = std::lock_guard<std::recursive_mutex>;

/** Joins the slot's retired writer, if any, and frees its stack. */
void _SCREENRECORD_ReclaimRetiredWriter(u32 u32SlotId);

/**
 * Checks the handle, then that the library is initialised; both failures are logged. Reclaims the
 * slot's retired writer, if any.
 */
bool _SCREENRECORD_CheckSlot(const u32* pu32Handle);
/** The same, and refuses a slot with a running module. */
bool _SCREENRECORD_CheckIdleSlot(const u32* pu32Handle);

#endif
