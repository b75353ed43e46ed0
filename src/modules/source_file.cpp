#include <cstring>

#include <zu3/fs.h>

#include "modules/sources.h"

SCREENRECORD_SrcKind_e _SCREENRECORD_SrcKindOf(const char* pName)
{
    const size_t length = strlen(pName);
    if (length >= 5 && strcmp(pName + length - 3, ".ts") == 0)
        return E_SCREENRECORD_SRC_TS_FILE;
    return strcmp(pName, "cap") == 0 ? E_SCREENRECORD_SRC_CAPTURE : E_SCREENRECORD_SRC_FILE;
}

u32 _SCREENRECORD_OpenSrcReader(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask)
{
    if (pstSlot == nullptr || pstTask == nullptr)
        return ZU_INVALID_ARGUMENT;
    const char* pName = nullptr;
    if (pstTask->eModule == E_SCREENRECORD_MODULE_VIDEO_SRC_READER) {
        pName = pstSlot->stSrcInfo.pu8VideoSrcName;
    } else if (pstTask->eModule == E_SCREENRECORD_MODULE_AUDIO_SRC_READER) {
        pName = pstSlot->stSrcInfo.pu8AudioSrcName;
    } else {
        SR_LOGE("Support module!\n");
        return ZU_INVALID_ARGUMENT;
    }
    const u32 u32File = ZU_FS_Fopen(pName, "rb");
    pstTask->u32SrcFile = u32File;
    if (u32File == 0) {
        SR_LOGE("Error: failed to ZU_FS_Fopen(%s) for Input Sourcen", pName);
        return ZU_FAILURE;
    }
    ZU_FS_Fseek(u32File, 0, 0);
    pstTask->u32Handle = u32File & 0x7FFFFFFF;
    return ZU_OK;
}
