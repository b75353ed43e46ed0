/** The names that a client gives: of the destination, of sources and of codecs. */
#ifndef SCREENRECORD_RECORDING_CLIENT_NAMES_H
#define SCREENRECORD_RECORDING_CLIENT_NAMES_H

#include "table/recording_table.h"

/**
 * A heap copy of a NUL-terminated name, the caller's to free; NULL when there is no memory, which
 * is logged.
 */
char* _SCREENRECORD_CopyName(const u8* pu8Name);

/**
 * Replaces a slot's copy of a source name by one of `pu8Name`.
 * @return false when there is no name (the old copy stays) or no memory (the slot has none then);
 * either is logged
 */
bool _SCREENRECORD_ReplaceSourceName(const u8* pu8Name, char** ppu8Copy);

/** The meaning of a client's source name. */
enum SCREENRECORD_SrcKind_e {
    /** "cap": the screen, or the sound that the device plays */
    E_SCREENRECORD_SRC_CAPTURE,
    /** at least five characters that end in ".ts": the codec name is ignored */
    E_SCREENRECORD_SRC_TS_FILE,
    E_SCREENRECORD_SRC_FILE,
};
SCREENRECORD_SrcKind_e _SCREENRECORD_SrcKindOf(const char* pName);

/*
 * Codec names. ZU_OK = accepted, ZU_INVALID_ARGUMENT = rejected; either is logged. `pu8Name` may be
 * NULL.
 */

/** Sets eVencType for the default and H.264; "mpeg4" is accepted without setting it. */
u32 _SCREENRECORD_GetVencSrcType(const u8* pu8Name, SCREENRECORD_SrcInfo_s* pstSrcInfo);
/** Sets eAencType for the default, AAC and MP3. */
u32 _SCREENRECORD_GetAencSrcType(const u8* pu8Name, SCREENRECORD_SrcInfo_s* pstSrcInfo);

#endif
