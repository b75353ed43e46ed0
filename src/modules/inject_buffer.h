/** The encoder's entire inject buffer: pictures that the capture writes there need no copy. */
#ifndef SCREENRECORD_MODULES_INJECT_BUFFER_H
#define SCREENRECORD_MODULES_INJECT_BUFFER_H

#include <zu3/types.h>

#include "base/cross_thread.h"

/** 1 = the capture writes its pictures directly into the encoder's entire inject buffer. */
extern CrossThread<u8> _bUseEntireInjectBuf;

/** The buffer's description from the encoder. */
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
 * Queries an encoder's buffer, and uses it if a picture of this size fits. False if the query
 * fails; no buffer is in use then.
 */
bool _SCREENRECORD_QueryInjectBuffer(u32 u32Venc, u32 u32Width, u32 u32Height);
/** Finds the buffer's IOMMU block and opens a descriptor for it. A failure is logged. */
bool _SCREENRECORD_DescribeInjectBuffer();
/** Returns the descriptor, if any, once no picture is being drawn through it. */
void _SCREENRECORD_PutInjectDescriptor();

#endif
