#ifndef SCREENRECORD_CORE_NAME_COPY_H
#define SCREENRECORD_CORE_NAME_COPY_H

#include <cstdlib>
#include <cstring>

#include <zu3/types.h>

/** A heap copy of a NUL-terminated name, the caller's to free; NULL when there is no memory. */
inline char* _SCREENRECORD_CopyName(const u8* pu8Name)
{
    const char* pName = reinterpret_cast<const char*>(pu8Name);
    const size_t size = strlen(pName) + 1;
    char* pCopy = static_cast<char*>(malloc(size));
    if (pCopy != nullptr)
        memcpy(pCopy, pName, size);
    return pCopy;
}

#endif
