/** System initialisation and the device's fixed memory layout. */
#ifndef ZU3_SYS_H
#define ZU3_SYS_H

#include "zu3/types.h"

ZU_EXTERN_C_BEGIN

enum {
    /** Memory-layout region of the transport-stream multiplexer's output buffer. */
    ZU_SYS_MMAP_ID_TSMUX_OUTPUT = 306
};

/** One region of the memory layout, filled by ZU_SYS_GetMmapLayout. */
typedef struct {
    u8 au8Reserved0[8];
    /** base address of phyMemAddr */
    u64 phyMiuBaseAddr;
    /** address of the region relative to phyMiuBaseAddr */
    u64 phyMemAddr;
    /** bytes; 0 = the device has no such region */
    u32 u32RegionSize;
    u8 au8Reserved1[44];
} ZU_SYS_MmapLayout_t;
ZU_ASSERT_DEVICE_SIZE(ZU_SYS_MmapLayout_t, 72);
ZU_ASSERT_DEVICE_OFFSET(ZU_SYS_MmapLayout_t, phyMiuBaseAddr, 8);
ZU_ASSERT_DEVICE_OFFSET(ZU_SYS_MmapLayout_t, phyMemAddr, 16);
ZU_ASSERT_DEVICE_OFFSET(ZU_SYS_MmapLayout_t, u32RegionSize, 24);

/**
 * Initialises the middleware. Call it once per process, before any module's initialisation.
 * `u32Flags` is 0.
 */
u32 ZU_SYS_Init(u32 u32Flags);
/** Describes region `u32Id`; for a missing region it fails, or the size is 0. */
u32 ZU_SYS_GetMmapLayout(u32 u32Id, ZU_SYS_MmapLayout_t* pstLayout);

ZU_EXTERN_C_END

#endif
