/** Capability queries of the platform as a whole; the library reads none of their fields. */
#ifndef ZU3_CAPS_H
#define ZU3_CAPS_H

#include "zu3/types.h"

ZU_EXTERN_C_BEGIN

typedef struct {
    u32 au32Reserved[2];
} ZU_VIDEO_Caps_t;
ZU_ASSERT_DEVICE_SIZE(ZU_VIDEO_Caps_t, 8);

typedef struct {
    u32 au32Reserved[5];
} ZU_AUDIO_Caps_t;
ZU_ASSERT_DEVICE_SIZE(ZU_AUDIO_Caps_t, 20);

u32 ZU_VIDEO_GetCaps(ZU_VIDEO_Caps_t* pstCaps);
u32 ZU_AUDIO_GetCaps(ZU_AUDIO_Caps_t* pstCaps);

ZU_EXTERN_C_END

#endif
