/** Files. Handles are u32 with 0 meaning none; a handle is used by one thread at a time. */
#ifndef ZU3_FS_H
#define ZU3_FS_H

#include "zu3/types.h"

ZU_EXTERN_C_BEGIN

/** Opens a file with a stdio mode ("rb", "wb"); returns its handle, 0 on failure. */
u32 ZU_FS_Fopen(const char* pName, const char* pMode);
u32 ZU_FS_Fclose(u32 u32File);
/**
 * Reads at most `u32Size` x `u32Count` bytes. Returns the number of bytes, 0 at end of file,
 * negative on error.
 */
s32 ZU_FS_Fread(void* pDst, u32 u32Size, u32 u32Count, u32 u32File);
/**
 * Writes `u32Count` items of `u32Size` bytes. Returns the number of whole items, negative on error.
 */
s32 ZU_FS_Fwrite(const void* pSrc, u32 u32Size, u32 u32Count, u32 u32File);
/** Moves the position to `s64Offset` bytes; `u32Whence` 0 = from the start. */
u32 ZU_FS_Fseek(u32 u32File, s64 s64Offset, u32 u32Whence);
/** Writes the file system's buffers of closed files to the medium. */
u32 ZU_FS_Sync(void);

ZU_EXTERN_C_END

#endif
