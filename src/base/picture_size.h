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

/**
 * Bytes of a captured 4:2:0 picture. Its chroma plane has room for whole blocks of 64 lines.
 * Saturates at the greatest 64-bit value, which every check refuses.
 */
inline u64 _SCREENRECORD_CaptureFrameSize(u32 u32CaptureWidth, u32 u32CaptureHeight)
{
    const u64 u64ChromaBase = (static_cast<u64>(u32CaptureHeight) + 63) & ~63ull;
    const u64 u64Lines = u32CaptureHeight + u64ChromaBase / 2;
    u64 u64Size = 0;
    return __builtin_mul_overflow(u64Lines, static_cast<u64>(u32CaptureWidth), &u64Size)
               ? UINT64_MAX
               : u64Size;
}

#endif
