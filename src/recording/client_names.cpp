#include "recording/client_names.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "base/log.h"

namespace {

enum {
    CODEC_SUPPORT_H264 = 1u << 0,
    AENC_TYPE_AAC = 0,
    AENC_TYPE_MP3 = 1,
};

/** The name as text; NULL = empty. */
const char* TextOf(const u8* pu8Name)
{
    return pu8Name != nullptr ? reinterpret_cast<const char*>(pu8Name) : "";
}

bool IsAnyOf(const char* pName, std::initializer_list<const char*> names)
{
    for (const char* pCandidate : names)
        if (strcmp(pName, pCandidate) == 0)
            return true;
    return false;
}

} // namespace

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

bool _SCREENRECORD_ReplaceSourceName(const u8* pu8Name, char** ppu8Copy)
{
    if (pu8Name == nullptr) {
        SR_HELPER_LOGE("Error: invalid Source name\n");
        return false;
    }
    free(*ppu8Copy);
    *ppu8Copy = _SCREENRECORD_CopyName(pu8Name);
    return *ppu8Copy != nullptr;
}

SCREENRECORD_SrcKind_e _SCREENRECORD_SrcKindOf(const char* pName)
{
    const size_t length = strlen(pName);
    if (length >= 5 && strcmp(pName + length - 3, ".ts") == 0)
        return E_SCREENRECORD_SRC_TS_FILE;
    return strcmp(pName, "cap") == 0 ? E_SCREENRECORD_SRC_CAPTURE : E_SCREENRECORD_SRC_FILE;
}

u32 _SCREENRECORD_GetVencSrcType(const u8* pu8Name, SCREENRECORD_SrcInfo_s* pstSrcInfo)
{
    const char* pName = TextOf(pu8Name);
    if (IsAnyOf(pName, {"", "auto", "default"})) {
        pstSrcInfo->eVencType = E_ZU_VENC_CODEC_H264;
        return ZU_OK;
    }
    if (IsAnyOf(pName, {"mpeg1", "mpeg2", "mpeg4", "h265"})) {
        SR_LOGE("Venc unsupport!\n");
        return strcmp(pName, "mpeg4") == 0 ? ZU_OK : ZU_INVALID_ARGUMENT;
    }
    if (strcmp(pName, "h264") == 0 &&
        (_stModuleCaps.stVencCaps.u32CodecSupport & CODEC_SUPPORT_H264) != 0) {
        pstSrcInfo->eVencType = E_ZU_VENC_CODEC_H264;
        return ZU_OK;
    }
    SR_LOGE("[Demo Venc] Invalid VENC type!\n");
    return ZU_INVALID_ARGUMENT;
}

u32 _SCREENRECORD_GetAencSrcType(const u8* pu8Name, SCREENRECORD_SrcInfo_s* pstSrcInfo)
{
    const char* pName = TextOf(pu8Name);
    if (IsAnyOf(pName, {"", "auto", "default", "aac"})) {
        pstSrcInfo->eAencType = AENC_TYPE_AAC;
        return ZU_OK;
    }
    if (strcmp(pName, "mp3") == 0) {
        SR_LOGE("Aenc unsupport!\n");
        pstSrcInfo->eAencType = AENC_TYPE_MP3;
        return ZU_OK;
    }
    if (IsAnyOf(pName, {"avs", "mpeg1", "ac3", "eac3", "heaac"})) {
        SR_LOGE("Aenc unsupport!\n");
        return ZU_INVALID_ARGUMENT;
    }
    SR_LOGE("[Demo Venc] Invalid AENC type!\n");
    return ZU_INVALID_ARGUMENT;
}
