#include "modules/inject_buffer.h"

#include <zu3/os.h>

#include "base/log.h"
#include "table/recording_table.h"

CrossThread<u8> _bUseEntireInjectBuf;
SCREENRECORD_EntireInjectBuf_s _stEntireInjectBuf;
SCREENRECORD_InjectBufFd_s _stInjectBufFd;
SCREENRECORD_InjectBufInfo_s _stInjectBufInfo;

/** The watermark's error lines carry no line number. */
#define INJECT_LOGE(text) __android_log_print(ANDROID_LOG_ERROR, SR_TAG, "%s " text, LogAs::Name())

bool _SCREENRECORD_QueryInjectBuffer(u32 u32Venc, u32 u32Width, u32 u32Height)
{
    // an earlier session's buffer went with its encoder
    _bUseEntireInjectBuf = 0;
    ZU_VENC_EntireInjectBuf_t stBuffer = {};
    const u32 u32Result = ZU_VENC_QueryEntireInjectBuffer(u32Venc, &stBuffer);
    _stEntireInjectBuf.u32VirtAddr = stBuffer.u32VirtAddr;
    _stEntireInjectBuf.u32Size = stBuffer.u32Size;
    if (u32Result != ZU_OK)
        return false;
    const bool bFits = stBuffer.u32Size >= static_cast<u64>(u32Width) * u32Height * 3 / 2;
    _bUseEntireInjectBuf = stBuffer.u32VirtAddr != 0 && bFits;
    return true;
}

bool _SCREENRECORD_DescribeInjectBuffer()
{
    _stInjectBufInfo.u64PhyAddr = 0;
    _stInjectBufInfo.u64StartPhyAddr = 0;
    _stInjectBufFd.u64PhyAddr = 0;
    _stInjectBufFd.s32Fd = SCREENRECORD_NO_ID;

    ZU_OS_IommuBufInfo_t stInfo = {};
    if (ZU_OS_Va2Pa(_stEntireInjectBuf.u32VirtAddr, &stInfo.u64PhyAddr) != ZU_OK) {
        INJECT_LOGE("ZU_OS_Va2Pa failed with external memory");
        return false;
    }
    _stInjectBufInfo.u64PhyAddr = stInfo.u64PhyAddr;
    if (ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFINFO, &stInfo) != ZU_OK) {
        INJECT_LOGE("E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFINFO failed");
        return false;
    }
    const unsigned long long ullPhyAddr = _stInjectBufInfo.u64PhyAddr;
    _stInjectBufInfo.u64StartPhyAddr = stInfo.u64StartPhyAddr;
    _stInjectBufFd.u64PhyAddr = ullPhyAddr;
    SR_HELPER_LOGD("%s get buffer info OK, physic: 0x%llx, startPhyAddr: 0x%llx", LogAs::Name(),
                   ullPhyAddr, static_cast<unsigned long long>(stInfo.u64StartPhyAddr));

    ZU_OS_IommuBufFd_t stFd = {
        .u64PhyAddr = ullPhyAddr, .s32Fd = SCREENRECORD_NO_ID, .u32Reserved = 0};
    const u32 u32Result = ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD, &stFd);
    // even if the call failed: the encoder's close returns it
    _stInjectBufFd.s32Fd = stFd.s32Fd;
    if (u32Result != ZU_OK) {
        INJECT_LOGE("E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD failed");
        return false;
    }
    SR_HELPER_LOGD("%s get buffer fd OK, fd:%d, physic: 0x%llx", LogAs::Name(), stFd.s32Fd,
                   ullPhyAddr);
    return true;
}

void _SCREENRECORD_PutInjectDescriptor()
{
    const s32 s32Fd = _stInjectBufFd.s32Fd.Exchange(SCREENRECORD_NO_ID);
    if (s32Fd < 0)
        return;
    _SCREENRECORD_TaskOf(0, E_SCREENRECORD_MODULE_VENC)->callbackGate.Drain();
    ZU_OS_IommuBufFd_t stFd = {
        .u64PhyAddr = _stInjectBufFd.u64PhyAddr, .s32Fd = s32Fd, .u32Reserved = 0};
    if (ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_PUT_BUFFD, &stFd) != ZU_OK)
        SR_HELPER_LOGD("%s put buffer fd failed, fd:%d, physic: 0x%llx", LogAs::Name(), s32Fd,
                       static_cast<unsigned long long>(stFd.u64PhyAddr));
}
