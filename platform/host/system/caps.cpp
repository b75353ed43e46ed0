#include "base/border.h"

#include <zu3/caps.h>

// The platform as a whole has no limits beyond those of its modules.
HOST_EXPORT u32 ZU_VIDEO_GetCaps(ZU_VIDEO_Caps_t* pstCaps)
{
    if (!pstCaps)
        return ZU_INVALID_ARGUMENT;
    *pstCaps = {};
    return ZU_OK;
}

HOST_EXPORT u32 ZU_AUDIO_GetCaps(ZU_AUDIO_Caps_t* pstCaps)
{
    if (!pstCaps)
        return ZU_INVALID_ARGUMENT;
    *pstCaps = {};
    return ZU_OK;
}
