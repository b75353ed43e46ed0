#include "core/name_copy.h"

#include <cstdlib>
#include <cstring>

char* _SCREENRECORD_CopyName(const u8* pu8Name, SCREENRECORD_Caller_s stCaller)
{
    const char* pName = reinterpret_cast<const char*>(pu8Name);
    const size_t size = strlen(pName) + 1;
    char* pCopy = static_cast<char*>(malloc(size));
    if (pCopy != nullptr)
        memcpy(pCopy, pName, size);
    else
        SR_LOG_AS(ANDROID_LOG_ERROR, stCaller, "[DEMO TRANSCODE] FAILED malloc memory!\n");
    return pCopy;
}

bool _SCREENRECORD_TakeSourceName(const u8* pu8Name, char** ppu8Copy, SCREENRECORD_Caller_s stCaller)
{
    if (pu8Name == nullptr) {
        SR_LOG_AS(ANDROID_LOG_ERROR, stCaller, "Error: invalid Source name\n");
        return false;
    }
    free(*ppu8Copy);
    *ppu8Copy = _SCREENRECORD_CopyName(pu8Name, stCaller);
    return *ppu8Copy != nullptr;
}
