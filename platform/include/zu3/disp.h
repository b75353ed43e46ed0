/** Display handles. */
#ifndef ZU3_DISP_H
#define ZU3_DISP_H

#include "zu3/types.h"

ZU_EXTERN_C_BEGIN

typedef struct {
    /** buffer of 64 bytes with the NUL-terminated display name, "ZU_DISP_HD0" for the main one */
    char* pu8Name;
} ZU_DISP_GetHandleParams_t;
ZU_ASSERT_DEVICE_SIZE(ZU_DISP_GetHandleParams_t, 4);

/** Finds a display by name and writes its handle. A display handle needs no release. */
u32 ZU_DISP_GetHandle(const ZU_DISP_GetHandleParams_t* pstParams, u32* pu32Handle);

ZU_EXTERN_C_END

#endif
