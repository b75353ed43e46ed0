/** Files. Handles are u32 with 0 meaning none; a handle is used by one thread at a time. */
#ifndef ZU3_FS_H
#define ZU3_FS_H

#include "zu3/types.h"

ZU_EXTERN_C_BEGIN

/** Opens a file with a stdio mode ("rb", "wb"); returns its handle, 0 on failure. */
u32 ZU_FS_Fopen(const char* pName, const char* pMode);
u32 ZU_FS_Fclose(u32 u32File);
/**
 * Reads up to `u32Size` x `u32Count` bytes; returns the bytes read, 0 at the end of the file,
 * negative on error.
 */
s32 ZU_FS_Fread(void* pDst, u32 u32Size, u32 u32Count, u32 u32File);
/**
 * Writes `u32Count` items of `u32Size` bytes; returns the items written whole, negative on error.
 */
s32 ZU_FS_Fwrite(const void* pSrc, u32 u32Size, u32 u32Count, u32 u32File);
/** Moves the position to `s64Offset` bytes; `u32Whence` 0 = from the start. */
u32 ZU_FS_Fseek(u32 u32File, s64 s64Offset, u32 u32Whence);
/** Writes what closed files left in the file system's buffers to the medium. */
u32 ZU_FS_Sync(void);

ZU_EXTERN_C_END

#endif
