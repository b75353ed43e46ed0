/** The client's names of destination, sources and codecs. */
#ifndef SCREENRECORD_RECORDING_CLIENT_NAMES_H
#define SCREENRECORD_RECORDING_CLIENT_NAMES_H

#include "table/recording_table.h"

/**
 * Copies a NUL-terminated name to the heap; the caller frees it. NULL, and a log line, without
 * memory.
 */
char* _SCREENRECORD_CopyName(const u8* pu8Name);

/**
 * Replaces a slot's copy of a source name with a copy of `pu8Name`.
 * @return false, and a log line, if the name is NULL (the old copy stays) or without memory (the
 *     slot has no name then)
 */
bool _SCREENRECORD_ReplaceSourceName(const u8* pu8Name, char** ppu8Copy);

/** Kind of source by its name. */
enum SCREENRECORD_SrcKind_e {
    /** "cap": the screen, or the device's sound */
    E_SCREENRECORD_SRC_CAPTURE,
    /** five or more characters that end in ".ts"; the codec name is ignored */
    E_SCREENRECORD_SRC_TS_FILE,
    E_SCREENRECORD_SRC_FILE,
};
SCREENRECORD_SrcKind_e _SCREENRECORD_SrcKindOf(const char* pName);

/*
 * Codec names. ZU_OK = accepted, ZU_INVALID_ARGUMENT = rejected and logged. `pu8Name` may be NULL.
 */

/** Sets eVencType for the default and H.264; "mpeg4" is accepted without setting it. */
u32 _SCREENRECORD_GetVencSrcType(const u8* pu8Name, SCREENRECORD_SrcInfo_s* pstSrcInfo);
/** Sets eAencType for the default, AAC and MP3. */
u32 _SCREENRECORD_GetAencSrcType(const u8* pu8Name, SCREENRECORD_SrcInfo_s* pstSrcInfo);

#endif
