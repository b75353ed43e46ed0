/**
 * The encoder's entire inject buffer: a capture that writes there needs no copy of its pictures.
 */
#ifndef SCREENRECORD_MODULES_INJECT_BUFFER_H
#define SCREENRECORD_MODULES_INJECT_BUFFER_H

#include <zu3/types.h>

#include "base/cross_thread.h"

/** 1 = the capture writes its pictures straight into the encoder's entire inject buffer. */
extern CrossThread<u8> _bUseEntireInjectBuf;

/** The buffer, as the encoder described it. */
struct SCREENRECORD_EntireInjectBuf_s {
    /** 0 = none */
    CrossThread<u32> u32VirtAddr;
    /** bytes */
    CrossThread<u32> u32Size;
};
extern SCREENRECORD_EntireInjectBuf_s _stEntireInjectBuf;

/** Its IOMMU descriptor; written by control calls, read by the captured-frame handler. */
struct SCREENRECORD_InjectBufFd_s {
    CrossThread<u64> u64PhyAddr;
    /** -1 = none */
    CrossThread<s32> s32Fd = -1;
};
extern SCREENRECORD_InjectBufFd_s _stInjectBufFd;

/** Its IOMMU description. */
struct SCREENRECORD_InjectBufInfo_s {
    u64 u64PhyAddr = 0;
    /** start of the IOMMU block that contains it */
    CrossThread<u64> u64StartPhyAddr;
};
extern SCREENRECORD_InjectBufInfo_s _stInjectBufInfo;

/**
 * Asks an encoder for its buffer, and uses it if it holds a picture of this size. False, and no
 * buffer in use, when the encoder does not answer.
 */
bool _SCREENRECORD_QueryInjectBuffer(u32 u32Venc, u32 u32Width, u32 u32Height);
/** Finds the buffer's block and gets a descriptor of it. A failure is logged. */
bool _SCREENRECORD_DescribeInjectBuffer();
/** Gives the descriptor back, once no picture is drawn by it; nothing when there is none. */
void _SCREENRECORD_PutInjectDescriptor();

#endif
