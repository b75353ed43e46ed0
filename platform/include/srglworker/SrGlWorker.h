/**
 * The watermark renderer `libSrGlWorker`: draws an RGBA picture from shared memory into captured
 * NV12 pictures.
 */
#ifndef SRGLWORKER_SRGLWORKER_H
#define SRGLWORKER_SRGLWORKER_H

#include <stdint.h>

#include "binder/IMemory.h"
#include "utils/RefBase.h"
#include "utils/StrongPointer.h"

/** A picture that the renderer draws into. */
struct qrl_native_buffer_t {
    /** 0x201 */
    uint32_t version;
    /** 2 */
    uint32_t flags;
    /** 0x23, HAL_PIXEL_FORMAT_YCbCr_420_888: NV12 here */
    uint32_t format;
    /** pixels */
    uint32_t width;
    /** lines */
    uint32_t height;
    /** bytes per line of both planes */
    uint32_t pitch;
    /** virtual address of the buffer that contains the picture */
    void* addr;
    /** 0 */
    uint32_t reserved0;
    /** physical start of that buffer */
    uint64_t phys;
    /** descriptor of the buffer, one per plane */
    int32_t fd[2];
    /** 0 */
    uint32_t reserved1;
    /** bytes from the buffer's start to the luma and to the chroma plane */
    uint32_t offset[2];
    /** 0 */
    uint32_t reserved2[3];
};
static_assert(sizeof(void*) != 4 || sizeof(qrl_native_buffer_t) == 72,
              "qrl_native_buffer_t differs from the device's size");

namespace android {

/**
 * A watermark: an RGBA picture in shared memory and its position. A NULL memory, a width or height
 * of 0 or an opacity of 0 draws nothing; use that to remove a watermark.
 */
class WatermarkParams : public RefBase {
public:
    /** the picture: u32Height lines of u32Stride bytes from u32Offset on */
    sp<IMemory> spMemory;
    /** 4 = R, G, B, A, one byte each, alpha not premultiplied; no other value is drawn */
    uint32_t u32BytesPerPixel = 4;
    /** left edge in the captured picture, pixels; may be negative or odd */
    int32_t s32X = 0;
    /** top edge, lines; may be negative or odd */
    int32_t s32Y = 0;
    /** pixels of the watermark, drawn one to one */
    uint32_t u32Width = 0;
    /** lines */
    uint32_t u32Height = 0;
    /** bytes per line, 0 = u32Width x 4 */
    uint32_t u32Stride = 0;
    /** byte of the memory where the first line starts */
    uint32_t u32Offset = 0;
    /** 0 (invisible) to 255 (the picture's alpha unchanged); more counts as 255 */
    uint32_t u32Opacity = 0;
    uint32_t au32Reserved[3] = {0, 0, 0};

    WatermarkParams() = default;
    /** Copies everything but the reference counts; adds a strong reference to the memory. */
    WatermarkParams(const WatermarkParams& other)
        : RefBase(), spMemory(other.spMemory), u32BytesPerPixel(other.u32BytesPerPixel),
          s32X(other.s32X), s32Y(other.s32Y), u32Width(other.u32Width), u32Height(other.u32Height),
          u32Stride(other.u32Stride), u32Offset(other.u32Offset),
          u32Opacity(other.u32Opacity), au32Reserved{other.au32Reserved[0], other.au32Reserved[1],
                                                     other.au32Reserved[2]}
    {
    }
    ~WatermarkParams() override = default;
    WatermarkParams& operator=(const WatermarkParams&) = delete;
};
static_assert(sizeof(void*) != 4 || sizeof(WatermarkParams) == 56,
              "WatermarkParams differs from the device's size");

namespace vexa_screenrecord {

/**
 * Draws watermarks. Every operation may be called from any thread; drawing and changing may
 * overlap.
 */
class SrGlWorker : public RefBase {
public:
    /**
     * A picture to draw into. Its memory must stay valid while the object lives.
     */
    class VideoBuffer : public RefBase {
    public:
        /** Wraps a picture; NULL on failure. */
        static sp<VideoBuffer> newBuffer(const qrl_native_buffer_t& buffer);

    protected:
        VideoBuffer() = default;
        ~VideoBuffer() override = default;
    };

    /** A new worker without a watermark; NULL on failure. */
    static sp<SrGlWorker> newWorker();
    /** Makes the worker ready to render; 0 on success. */
    int prepare();
    /**
     * Replaces the watermark from the next picture on. 0 if it is accepted; otherwise the old one
     * stays.
     */
    int setWatermark(sp<WatermarkParams> params);
    /** Draws the current watermark into the picture in place; 0 on success. */
    int render(sp<VideoBuffer> buffer);
    /** Removes the watermark and releases the resources of prepare(). */
    int reset();

protected:
    SrGlWorker() = default;
    ~SrGlWorker() override = default;
};

} // namespace vexa_screenrecord
} // namespace android

#endif
