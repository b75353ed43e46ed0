#include "recording/name_copy.h"

#include <cstdlib>
#include <cstring>

#include "base/log.h"

char* _SCREENRECORD_CopyName(const u8* pu8Name)
{
    const char* pName = reinterpret_cast<const char*>(pu8Name);
    const size_t size = strlen(pName) + 1;
    char* pCopy = static_cast<char*>(malloc(size));
    if (pCopy != nullptr)
        memcpy(pCopy, pName, size);
    else
        SR_HELPER_LOGE("[DEMO TRANSCODE] FAILED malloc memory!\n");
    return pCopy;
}

bool _SCREENRECORD_TakeSourceName(const u8* pu8Name, char** ppu8Copy)
{
    if (pu8Name == nullptr) {
        SR_HELPER_LOGE("Error: invalid Source name\n");
        return false;
    }
    free(*ppu8Copy);
    *ppu8Copy = _SCREENRECORD_CopyName(pu8Name);
    return *ppu8Copy != nullptr;
}
