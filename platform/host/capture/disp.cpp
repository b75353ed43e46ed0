#include "base/border.h"
#include "capture/capture_device.h"

#include <cstring>
#include <zu3/disp.h>

HOST_EXPORT u32 ZU_DISP_GetHandle(const ZU_DISP_GetHandleParams_t* pstParams, u32* pu32Handle)
{
    constexpr char main_name[] = "ZU_DISP_HD0";
    constexpr size_t name_buffer_bytes = 64;
    if (!pstParams || !pstParams->pu8Name || !pu32Handle)
        return ZU_INVALID_ARGUMENT;
    if (std::strncmp(pstParams->pu8Name, main_name, name_buffer_bytes) != 0) {
        HOST_LOGE("There is no display \"%.63s\"; the only one is \"%s\".", pstParams->pu8Name,
                  main_name);
        return ZU_INVALID_ARGUMENT;
    }
    *pu32Handle = zu3host::main_display;
    return ZU_OK;
}
