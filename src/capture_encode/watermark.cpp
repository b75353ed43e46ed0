#include "capture_encode/watermark.h"

#include <new>

#include <screenrecord/screenrecord.h>

#include "base/log.h"
#include "modules/inject_buffer.h"
#include "table/control_call.h"
#include "table/recording_table.h"

using android::sp;
using android::WatermarkParams;
using android::vexa_screenrecord::SrGlWorker;

namespace {

/** A reference that is never released at exit, because a callback may still draw then. */
union KeptWorker_u {
    KeptWorker_u() : sp() {}
    ~KeptWorker_u() {}
    android::sp<SrGlWorker> sp;
};
KeptWorker_u _uWorker;
KeptWorker_u _uBusyWorker;
/** Owns the worker; control calls only. */
sp<SrGlWorker>& _spSrGlWorker = _uWorker.sp;
/**
 * A worker whose release timed out because a callback was still in it. A later release frees it,
 * and it must be free before the next worker is created: there is room for one.
 */
sp<SrGlWorker>& _spBusyWorker = _uBusyWorker.sp;
/**
 * The worker, for the captured-frame handler: set when the worker is complete, cleared before its
 * release.
 */
CrossThread<SrGlWorker*> _pPublishedWorker;

/** This interface's error lines have no line number, and some have no function name. */
#define WATERMARK_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, SR_TAG, __VA_ARGS__)

bool IsInInjectBuffer(u64 u64PhyAddr)
{
    const u64 u64Start = _stInjectBufFd.u64PhyAddr;
    const u64 u64End = u64Start + _stEntireInjectBuf.u32Size;
    return u64Start <= u64PhyAddr && u64PhyAddr < u64End;
}

qrl_native_buffer_t DescribePicture(const ZU_CAP_FrameInfo_t& stFrame, s32 s32Fd)
{
    const SCREENRECORD_SrcInfo_s& stSrcInfo = _astSlotCtrl[0].stSrcInfo;
    qrl_native_buffer_t stBuffer = {};
    stBuffer.version = 0x201;
    stBuffer.flags = 2;
    // HAL_PIXEL_FORMAT_YCbCr_420_888
    stBuffer.format = 0x23;
    stBuffer.width = stSrcInfo.u32Width;
    stBuffer.height = stSrcInfo.u32Height;
    stBuffer.pitch = stSrcInfo.u32Width;
    stBuffer.addr =
        reinterpret_cast<void*>(static_cast<uintptr_t>(_stEntireInjectBuf.u32VirtAddr.Get()));
    stBuffer.phys = _stInjectBufInfo.u64StartPhyAddr;
    stBuffer.fd[0] = s32Fd;
    stBuffer.fd[1] = s32Fd;
    stBuffer.offset[0] = static_cast<u32>(stFrame.phyYAddr - stBuffer.phys);
    stBuffer.offset[1] = static_cast<u32>(stFrame.phyCAddr - stBuffer.phys);
    return stBuffer;
}

} // namespace

int video_capenc_setWatermark(const WatermarkParams& watermark)
{
    const LogAs as(__func__);
    const ControlLock lock(_controlMutex);
    const sp<WatermarkParams> spCopy = new (std::nothrow) WatermarkParams(watermark);
    if (!spCopy) {
        WATERMARK_LOGE("%s no memory for the watermark", __func__);
        return -1;
    }
    if (!_spSrGlWorker) {
        if (_bUseEntireInjectBuf == 0) {
            WATERMARK_LOGE("%s watermark flow is supported in external memory case only now",
                           __func__);
            return -1;
        }
        if (_spBusyWorker)
            // its callback may have returned since
            _SCREENRECORD_ReleaseWatermark();
        if (_spBusyWorker) {
            WATERMARK_LOGE("%s the last watermark is still being drawn", __func__);
            return -1;
        }
        if (!_SCREENRECORD_DescribeInjectBuffer())
            return -1;
        _spSrGlWorker = SrGlWorker::newWorker();
        if (!_spSrGlWorker) {
            WATERMARK_LOGE("newWorker failed");
            return -1;
        }
        _pPublishedWorker = _spSrGlWorker.get();
    }
    // The worker calls the client's memory object, in which the client may stop the pipeline: keep
    // a reference.
    const sp<SrGlWorker> spWorker = _spSrGlWorker;
    if (spWorker->setWatermark(spCopy) != 0) {
        WATERMARK_LOGE("setWatermark failed");
        return -1;
    }
    return 0;
}

bool _SCREENRECORD_PrepareWatermark()
{
    // keeps the worker during a stop from inside it, as above
    const sp<SrGlWorker> spWorker = _spSrGlWorker;
    if (!spWorker || spWorker->prepare() == 0)
        return true;
    WATERMARK_LOGE("prepare failed");
    return false;
}

void _SCREENRECORD_ReleaseWatermark()
{
    if (!_spSrGlWorker && !_spBusyWorker)
        return;
    _pPublishedWorker = nullptr;
    bool bLeft = true;
    for (SCREENRECORD_SlotCtrl_s& stSlot : _astSlotCtrl)
        bLeft &= stSlot.astTaskCtrl[E_SCREENRECORD_MODULE_VCAP].callbackGate.Drain();
    if (!bLeft) {
        if (_spSrGlWorker)
            _spBusyWorker = _spSrGlWorker;
        _spSrGlWorker.clear();
        return;
    }
    for (sp<SrGlWorker>* pspWorker : {&_spSrGlWorker, &_spBusyWorker}) {
        const sp<SrGlWorker> spWorker = *pspWorker;
        // before the reset, so a stop from inside it finds nothing to release
        pspWorker->clear();
        if (spWorker)
            spWorker->reset();
    }
}

void _SCREENRECORD_RenderWatermark(const ZU_CAP_FrameInfo_t& stFrame)
{
    SrGlWorker* pWorker = _pPublishedWorker;
    const s32 s32Fd = _stInjectBufFd.s32Fd;
    if (pWorker == nullptr || s32Fd < 1 || !IsInInjectBuffer(stFrame.phyYAddr) ||
        !IsInInjectBuffer(stFrame.phyCAddr))
        return;
    const qrl_native_buffer_t stBuffer = DescribePicture(stFrame, s32Fd);
    SR_HELPER_LOGD(
        "SrGlWorker::render, version:%u, flags:0x%x, format:0x%x, width:%u, height:%u, pitch:%u, addr:%p, phys:0x%llx, fd[0]:%d, fd[1]:%d, offset[0]:0x%x, offset[1]:0x%x",
        stBuffer.version, stBuffer.flags, stBuffer.format, stBuffer.width, stBuffer.height,
        stBuffer.pitch, stBuffer.addr, static_cast<unsigned long long>(stBuffer.phys),
        stBuffer.fd[0], stBuffer.fd[1], stBuffer.offset[0], stBuffer.offset[1]);
    const sp<SrGlWorker::VideoBuffer> spBuffer = SrGlWorker::VideoBuffer::newBuffer(stBuffer);
    if (!spBuffer)
        SR_HELPER_LOGE("VideoBuffer::newBuffer failed");
    else if (pWorker->render(spBuffer) != 0)
        SR_HELPER_LOGE("SrGlWorker::onRender failed");
}
