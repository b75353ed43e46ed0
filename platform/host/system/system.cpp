#include "base/border.h"

#include <atomic>
#include <zu3/caps.h>
#include <zu3/sys.h>

HOST_EXPORT u32 ZU_SYS_Init(u32 u32Flags)
{
    static std::atomic<bool> initialised{false};
    if (u32Flags != 0)
        return ZU_INVALID_ARGUMENT;
    return initialised.exchange(true) ? ZU_ALREADY_INITIALISED : ZU_OK;
}

// The platform as a whole has no limits of its own: the modules' capabilities say what can be
// recorded.
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
