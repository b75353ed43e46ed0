#ifndef SCREENRECORD_RECORDING_NAME_COPY_H
#define SCREENRECORD_RECORDING_NAME_COPY_H

#include <zu3/types.h>

/** A heap copy of a NUL-terminated name, the caller's to free; NULL when there is no memory, which is logged.
 */
char* _SCREENRECORD_CopyName(const u8* pu8Name);

/**
 * Replaces a slot's copy of a source name by one of `pu8Name`.
 * @return false when there is no name (the old copy stays) or no memory (the slot has none then); either is
 * logged
 */
bool _SCREENRECORD_TakeSourceName(const u8* pu8Name, char** ppu8Copy);

#endif
