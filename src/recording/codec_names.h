/** Codec names that a client may give. ZU_OK = accepted, ZU_INVALID_ARGUMENT = rejected; either is logged. */
#ifndef SCREENRECORD_RECORDING_CODEC_NAMES_H
#define SCREENRECORD_RECORDING_CODEC_NAMES_H

#include "table/recording_table.h"

/** Sets eVencType for the default and H.264; "mpeg4" is accepted without setting it. `pu8Name` may be NULL.
 */
u32 _SCREENRECORD_GetVencSrcType(const u8* pu8Name, SCREENRECORD_SrcInfo_s* pstSrcInfo);
/** Sets eAencType for the default, AAC and MP3. `pu8Name` may be NULL. */
u32 _SCREENRECORD_GetAencSrcType(const u8* pu8Name, SCREENRECORD_SrcInfo_s* pstSrcInfo);

#endif
