#include "recording/codec_names.h"

#include <cstring>
#include <initializer_list>

namespace {

enum {
    CODEC_SUPPORT_H264 = 1u << 0,
    AENC_TYPE_AAC = 0,
    AENC_TYPE_MP3 = 1,
};

/** The name as text; NULL is the empty name. */
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
    if (strcmp(pName, "h264") == 0 && (_stModuleCaps.stVencCaps.u32CodecSupport & CODEC_SUPPORT_H264) != 0) {
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
