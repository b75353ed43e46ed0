#include <cstdio>

#include <screenrecord/screenrecord.h>
#include <utils/Timers.h>

#include "base/log.h"
#include "base/picture_size.h"
#include "modules/module.h"
#include "modules/screen_capture.h"
#include "table/control_call.h"

namespace {

constexpr u32 IOMMU_CPU_AND_CAPTURE = 3;

/** Bytes per line of a public format. False for an unknown format. */
bool video_cap_GetOutFmtPitch(u32 u32Format, u32 u32Width, u64* pu64Pitch)
{
    const u64 u64Width = u32Width;
    switch (u32Format) {
    case E_CAP_OUTPUT_FMT_YUYV:
    case E_CAP_OUTPUT_FMT_RGB565:
        *pu64Pitch = u64Width * 2;
        return true;
    case E_CAP_OUTPUT_FMT_BGRA:
        *pu64Pitch = u64Width * 4;
        return true;
    case E_CAP_OUTPUT_FMT_NV12:
        *pu64Pitch = u64Width * 3 / 2;
        return true;
    default:
        SR_LOGE("not defined format(%d)!\n", static_cast<int>(u32Format));
        return false;
    }
}

/** The capture's code of a public format. False for an unknown format. */
bool video_cap_ConverOutPutFormat(u32 u32Format, u32* pu32CapFormat)
{
    static constexpr u32 au32CapFormat[] = {E_ZU_CAP_FORMAT_YUYV, E_ZU_CAP_FORMAT_RGB565,
                                            E_ZU_CAP_FORMAT_BGRA, E_ZU_CAP_FORMAT_NV12};
    if (u32Format > E_CAP_OUTPUT_FMT_NV12) {
        SR_LOGE("not defined format(%d)!\n", static_cast<int>(u32Format));
        return false;
    }
    *pu32CapFormat = au32CapFormat[u32Format];
    return true;
}

void FreeBlock(u64 u64PhyAddr, u64 u64Size)
{
    const ZU_OS_IommuFree_t stFree = {
        .u64PhyAddr = u64PhyAddr, .u32Size = static_cast<u32>(u64Size), .u32Reserved = 0};
    ZU_OS_FreeIommuMemory(&stFree);
}

/**
 * Allocates the block of frame buffers and gets its descriptor. 1 on success; 0, with address 0 and
 * descriptor -1, on failure.
 */
u32 _video_cap_allocBuffer(u64 u64Size, u64* pu64PhyAddr, s32* ps32Fd)
{
    *pu64PhyAddr = 0;
    *ps32Fd = SCREENRECORD_NO_ID;
    ZU_OS_IommuAlloc_t stAlloc = {};
    snprintf(stAlloc.acTag, sizeof(stAlloc.acTag), "%s", "vdec_fb");
    stAlloc.u32Size = static_cast<u32>(u64Size);
    stAlloc.u32Flags = IOMMU_CPU_AND_CAPTURE;
    // The record's size has 32 bits: do not allocate a truncated size.
    if (u64Size > UINT32_MAX || ZU_OS_AllocateIommuMemory(&stAlloc) != ZU_OK) {
        SR_LOGE("%s ZU_OS_AllocateIommuMemory fail, tag: %s, size: 0x%llx", __func__, stAlloc.acTag,
                static_cast<unsigned long long>(u64Size));
        return 0;
    }
    ZU_OS_IommuBufFd_t stFd = {
        .u64PhyAddr = stAlloc.u64PhyAddr, .s32Fd = SCREENRECORD_NO_ID, .u32Reserved = 0};
    if (ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD, &stFd) != ZU_OK) {
        SR_LOGE("%s GET_BUFFD fail, tag: %s, size: 0x%llx", __func__, stAlloc.acTag,
                static_cast<unsigned long long>(u64Size));
        if (stAlloc.u64PhyAddr != 0)
            FreeBlock(stAlloc.u64PhyAddr, u64Size);
        return 0;
    }
    *pu64PhyAddr = stAlloc.u64PhyAddr;
    *ps32Fd = stFd.s32Fd;
    SR_LOGD("%s phyBufPhy: 0x%llx", __func__, static_cast<unsigned long long>(stAlloc.u64PhyAddr));
    return 1;
}

/**
 * Allocates the buffers of an opened capture. After a failure the device stays open, and captures
 * are refused.
 */
void AllocateBuffers(SCREENRECORD_SlotCtrl_s& stSlot, u64 u64Pitch, u32 u32Count)
{
    u64 u64FrameSize = 0;
    u64 u64Total = 0;
    u64 u64PhyAddr = 0;
    s32 s32Fd = SCREENRECORD_NO_ID;
    // A size beyond 64 bits counts as a block of 4 GiB or more.
    if (__builtin_mul_overflow(static_cast<u64>(stSlot.stSrcInfo.u32Height), u64Pitch,
                               &u64FrameSize) ||
        __builtin_add_overflow((u64FrameSize - 1) | 0xFFF, 1, &u64FrameSize) ||
        __builtin_mul_overflow(u64FrameSize, static_cast<u64>(u32Count), &u64Total))
        u64Total = UINT64_MAX;
    if (_video_cap_allocBuffer(u64Total, &u64PhyAddr, &s32Fd) == 0) {
        stSlot.u64CapBufTotalSize = 0;
        stSlot.u64CapBufPhyAddr = 0;
        return;
    }
    stSlot.u64CapBufTotalSize = u64Total;
    stSlot.u64CapFrameSize = u64FrameSize;
    stSlot.u32MaxFrameNum = u32Count;
    stSlot.u64CapBufPhyAddr = u64PhyAddr;
    stSlot.u32CapPitch = static_cast<u32>(u64Pitch);
    stSlot.s32CapBufFd = s32Fd;
}

/**
 * Describes buffer `u32Index`: one plane; for NV12, luma followed by chroma.
 */
void FillCaptureBuffer(const SCREENRECORD_SlotCtrl_s& stSlot, u32 u32Index, Cap_Buffer* pstBuffer)
{
    const SCREENRECORD_SrcInfo_s& stSrcInfo = stSlot.stSrcInfo;
    u64 u64Pitch = 0;
    video_cap_GetOutFmtPitch(stSrcInfo.eCapOutputFmt, stSrcInfo.u32Width, &u64Pitch);
    pstBuffer->fd[0] = stSlot.s32CapBufFd;
    pstBuffer->offset[0] = static_cast<u32>(u32Index * stSlot.u64CapFrameSize);
    pstBuffer->size[0] = stSlot.u64CapFrameSize;
    pstBuffer->planeCount = 1;
    pstBuffer->width = stSrcInfo.u32Width;
    pstBuffer->height = stSrcInfo.u32Height;
    pstBuffer->pitch = static_cast<u32>(u64Pitch);
    pstBuffer->format = stSrcInfo.eCapOutputFmt;
    if (stSrcInfo.eCapOutputFmt != E_CAP_OUTPUT_FMT_NV12)
        return;
    const u64 u64LumaSize = static_cast<u64>(stSrcInfo.u32Width) * stSrcInfo.u32Height;
    pstBuffer->planeCount = 2;
    pstBuffer->size[0] = u64LumaSize;
    pstBuffer->fd[1] = stSlot.s32CapBufFd;
    pstBuffer->offset[1] = static_cast<u32>(pstBuffer->offset[0] + u64LumaSize);
    // Chroma bytes per line are rounded down with the pitch, so the plane ends within its buffer.
    pstBuffer->size[1] = (u64Pitch - stSrcInfo.u32Width) * stSrcInfo.u32Height;
}

ZU_CAP_CaptureParams_t StillParams(const SCREENRECORD_SlotCtrl_s& stSlot, u32 u32Index,
                                   u32 u32CapFormat)
{
    ZU_CAP_CaptureParams_t stParams = {};
    stParams.u32Osd = stSlot.stSrcInfo.bOsd;
    stParams.stOutput.u32OutSize = static_cast<u32>(stSlot.u64CapFrameSize);
    stParams.stOutput.u32OutWidth = stSlot.stSrcInfo.u32Width;
    stParams.stOutput.u32OutHeight = stSlot.stSrcInfo.u32Height;
    stParams.stOutput.eOutFormat = u32CapFormat;
    stParams.stOutput.u32Pitch = stSlot.u32CapPitch;
    stParams.stOutput.u64PhyAddr = stSlot.u64CapBufPhyAddr + u32Index * stSlot.u64CapFrameSize;
    return stParams;
}

} // namespace

s32 video_cap_open(Cap_OpenParams* params)
{
    const ControlLock lock(_controlMutex);
    if (params->buffer_number <= 0) {
        SR_LOGE("Invalid param, buffer_number: %d", params->buffer_number);
        return -1;
    }
    SCREENRECORD_TaskCtrl_s* pstTask = _SCREENRECORD_CaptureTask();
    if (pstTask->u32Handle != 0) {
        SR_LOGE(" Vcap not closed,Please close vcap!handle =%x\n", pstTask->u32Handle.Get());
        return -1;
    }
    if (_SCREENRECORD_InitModule(E_SCREENRECORD_MODULE_VCAP) != ZU_OK) {
        SR_LOGE(" _SCREENRECORD_InitModule VCAP Failed!\n");
        return -1;
    }
    SCREENRECORD_SlotCtrl_s& stSlot = _astSlotCtrl[0];
    stSlot.stSrcInfo.u32Width = _SCREENRECORD_ValueOr(params->width, SCREENRECORD_DEFAULT_WIDTH);
    stSlot.stSrcInfo.u32Height = _SCREENRECORD_ValueOr(params->height, SCREENRECORD_DEFAULT_HEIGHT);
    stSlot.stSrcInfo.bOsd = static_cast<u8>(params->withosd);
    SR_LOGD(" info w=%d,h=%d,withosd=%d,colorfmt=%d!\n", static_cast<int>(params->width),
            static_cast<int>(params->height), static_cast<int>(params->withosd),
            static_cast<int>(params->colorfmt));

    _SCREENRECORD_ResetTask(pstTask, E_SCREENRECORD_MODULE_VCAP);
    if (!_SCREENRECORD_OpenVcapNoEnc(pstTask)) {
        SR_LOGE(" _SCREENRECORD_OpenVcap Failed!\n");
        return -1;
    }
    u64 u64Pitch = 0;
    if (!video_cap_GetOutFmtPitch(params->colorfmt, stSlot.stSrcInfo.u32Width, &u64Pitch)) {
        SR_LOGE(" video_cap_GetOutFmtPitch Failed !!!, outColorFmt = %d\n",
                static_cast<int>(params->colorfmt));
        return -1;
    }
    stSlot.stSrcInfo.eCapOutputFmt = params->colorfmt;
    AllocateBuffers(stSlot, u64Pitch, static_cast<u32>(params->buffer_number));
    return 0;
}

s32 video_cap_getCaptureBuffers(Cap_Buffer* buffers, u32 count)
{
    const ControlLock lock(_controlMutex);
    const SCREENRECORD_SlotCtrl_s& stSlot = _astSlotCtrl[0];
    if (count != stSlot.u32MaxFrameNum || stSlot.s32CapBufFd == SCREENRECORD_NO_ID)
        return -1;
    for (u32 u32Index = 0; u32Index < count; u32Index++) {
        if (stSlot.stSrcInfo.eCapOutputFmt > E_CAP_OUTPUT_FMT_NV12) {
            SR_LOGE("%s invalid Cap_OutputFmt_e(%d)", __func__,
                    static_cast<int>(stSlot.stSrcInfo.eCapOutputFmt));
            return -1;
        }
        FillCaptureBuffer(stSlot, u32Index, &buffers[u32Index]);
    }
    return 0;
}

s32 video_cap_captureScreen(s32 index)
{
    const ControlLock lock(_controlMutex);
    const SCREENRECORD_SlotCtrl_s& stSlot = _astSlotCtrl[0];
    if (index < 0 || index >= static_cast<s32>(stSlot.u32MaxFrameNum)) {
        SR_LOGE("Invalid param, index: %u, u32MaxFrameNum: %u", static_cast<u32>(index),
                stSlot.u32MaxFrameNum);
        return -1;
    }
    u32 u32CapFormat = 0;
    if (!video_cap_ConverOutPutFormat(stSlot.stSrcInfo.eCapOutputFmt, &u32CapFormat)) {
        SR_LOGE("Invalid param, colorFmt: %d", static_cast<int>(stSlot.stSrcInfo.eCapOutputFmt));
        return -1;
    }
    const u32 u32Handle = _SCREENRECORD_CaptureTask()->u32Handle;
    // needed beside the index check: the count may be that of an earlier open
    if (stSlot.u64CapBufPhyAddr == 0 || u32Handle == 0) {
        SR_LOGE("No capture buffer, index: %u", static_cast<u32>(index));
        return -1;
    }
    const ZU_CAP_CaptureParams_t stParams =
        StillParams(stSlot, static_cast<u32>(index), u32CapFormat);
    ZU_CAP_FrameInfo_t stFrame = {};
    const nsecs_t s64Begin = systemTime(SYSTEM_TIME_MONOTONIC);
    if (ZU_CAP_CaptureOne(u32Handle, &stParams, &stFrame) != ZU_OK) {
        SR_LOGE("ZU_CAP_CaptureOne fail! \n");
        return -1;
    }
    SR_LOGD("capture: %lld ms",
            static_cast<long long>((systemTime(SYSTEM_TIME_MONOTONIC) - s64Begin) / 1000000));
    if (ZU_CAP_ProcessBufDone(u32Handle, stFrame.u32BufIndex) != ZU_OK)
        SR_LOGE_LINE("\033[35m%s %d[ ZU_CAP_ProcessBufDone bufindex = %d fail !!]\033[m\n",
                     static_cast<int>(stFrame.u32BufIndex));
    return 0;
}

s32 video_cap_close(void)
{
    const ControlLock lock(_controlMutex);
    SCREENRECORD_SlotCtrl_s& stSlot = _astSlotCtrl[0];
    if (stSlot.u64CapBufPhyAddr != 0) {
        ZU_OS_IommuBufFd_t stFd = {.u64PhyAddr = 0, .s32Fd = stSlot.s32CapBufFd, .u32Reserved = 0};
        ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_PUT_BUFFD, &stFd);
        FreeBlock(stSlot.u64CapBufPhyAddr, stSlot.u64CapBufTotalSize);
        stSlot.u64CapBufPhyAddr = 0;
        stSlot.s32CapBufFd = SCREENRECORD_NO_ID;
    }
    SCREENRECORD_TaskCtrl_s* pstVcap = _SCREENRECORD_CaptureTask();
    if (pstVcap->u32Handle != 0 && _SCREENRECORD_CloseVcap(pstVcap) != ZU_OK) {
        SR_LOGE("Failed to CloseVcap()\n");
        return -1;
    }
    return 0;
}
