/** Sizes of captured pictures: defaults, rounding, and the bytes of a picture. */
#ifndef SCREENRECORD_BASE_PICTURE_SIZE_H
#define SCREENRECORD_BASE_PICTURE_SIZE_H

#include <zu3/types.h>

enum {
    SCREENRECORD_DEFAULT_WIDTH = 640,
    SCREENRECORD_DEFAULT_HEIGHT = 480,
    SCREENRECORD_DEFAULT_FRAME_RATE = 30,
};

inline u32 _SCREENRECORD_ValueOr(u32 u32Value, u32 u32Default)
{
    return u32Value != 0 ? u32Value : u32Default;
}

/**
 * Rounds up to a multiple of `u32Alignment`, a power of two. If that exceeds 32 bits, returns the
 * greatest multiple, which every encoder refuses: a huge size must not wrap into a small one.
 */
inline u32 _SCREENRECORD_AlignUpSaturating(u32 u32Value, u32 u32Alignment)
{
    const u32 u32Mask = u32Alignment - 1;
    return u32Value > ~u32Mask ? ~u32Mask : (u32Value + u32Mask) & ~u32Mask;
}

/* A captured picture's width is a multiple of 16 pixels, its height a multiple of 32 lines. */
inline u32 _SCREENRECORD_CaptureWidth(u32 u32Width)
{
    return _SCREENRECORD_AlignUpSaturating(u32Width, 16);
}
inline u32 _SCREENRECORD_CaptureHeight(u32 u32Height)
{
    return _SCREENRECORD_AlignUpSaturating(u32Height, 32);
}

/** Lines of a captured picture's chroma plane, which has room for whole blocks of 64 lines. */
inline u64 _SCREENRECORD_ChromaBase(u32 u32CaptureHeight)
{
    return (static_cast<u64>(u32CaptureHeight) + 63) & ~63ull;
}

/** True if the output buffer of a capture, twice its picture, has a size of 32 bits. */
inline bool _SCREENRECORD_CaptureFits(u32 u32CaptureWidth, u32 u32CaptureHeight)
{
    const u64 u64Lines = u32CaptureHeight + _SCREENRECORD_ChromaBase(u32CaptureHeight) / 2;
    return u32CaptureWidth == 0 || u64Lines <= UINT32_MAX / 2 / u32CaptureWidth;
}

/**
 * Bytes of a captured 4:2:0 picture. Each step is modulo 2^32, which changes no size that fits.
 */
inline u32 _SCREENRECORD_CaptureFrameSize(u32 u32CaptureWidth, u32 u32CaptureHeight)
{
    const u64 u64Width = u32CaptureWidth;
    const u64 u64ChromaBase = _SCREENRECORD_ChromaBase(u32CaptureHeight) & UINT32_MAX;
    const u32 u32Luma = static_cast<u32>(u64Width * u32CaptureHeight);
    const u32 u32Chroma = static_cast<u32>(u64Width * u64ChromaBase) / 2;
    return static_cast<u32>(static_cast<u64>(u32Luma) + u32Chroma);
}

#endif
