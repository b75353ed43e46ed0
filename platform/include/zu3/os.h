/**
 * Operating-system services of the middleware: mutexes, tasks, delays, system time, address
 * conversion and IOMMU memory. Ids are s32 with -1 meaning none. All functions may be called from
 * any thread.
 */
#ifndef ZU3_OS_H
#define ZU3_OS_H

#include "zu3/types.h"

ZU_EXTERN_C_BEGIN

/** Given to ZU_OS_CreateMutex. */
typedef struct {
    /** NUL-terminated, read during the call only */
    const char* pName;
    /** 0 */
    u32 u32Reserved;
} ZU_OS_MutexAttr_t;
ZU_ASSERT_DEVICE_SIZE(ZU_OS_MutexAttr_t, 8);
ZU_ASSERT_DEVICE_OFFSET(ZU_OS_MutexAttr_t, u32Reserved, 4);

/** Entry of a task. The task ends when the entry returns. */
typedef void (*ZU_OS_TaskEntry)(void* pArg);

/** Given to ZU_OS_CreateTask. */
typedef struct {
    ZU_OS_TaskEntry pfnEntry;
    /**
     * passed to the entry unchanged; the entry owns and frees the block. If the task was deleted
     * before it ran, or was not created, the creator still owns it
     */
    void* pArg;
    /** scheduling class, 4 = the middleware's default for media tasks */
    u32 u32Priority;
    /** 1 = runnable at once */
    u8 bAutoStart;
    /** 0 */
    u8 au8Reserved[3];
    /** stack block, owned by the creator and valid until ZU_OS_DeleteTask returned */
    void* pStack;
    /** its size in bytes */
    u32 u32StackSize;
    /** NUL-terminated, read during the call only */
    const char* pName;
} ZU_OS_TaskAttr_t;
ZU_ASSERT_DEVICE_SIZE(ZU_OS_TaskAttr_t, 28);
ZU_ASSERT_DEVICE_OFFSET(ZU_OS_TaskAttr_t, u32Priority, 8);
ZU_ASSERT_DEVICE_OFFSET(ZU_OS_TaskAttr_t, bAutoStart, 12);
ZU_ASSERT_DEVICE_OFFSET(ZU_OS_TaskAttr_t, pStack, 16);
ZU_ASSERT_DEVICE_OFFSET(ZU_OS_TaskAttr_t, u32StackSize, 20);
ZU_ASSERT_DEVICE_OFFSET(ZU_OS_TaskAttr_t, pName, 24);

/** Creates an unlocked, non-recursive mutex; writes its id, which is 0 or more. */
u32 ZU_OS_CreateMutex(const ZU_OS_MutexAttr_t* pstAttr, s32* ps32MutexId);
/** Waits at most `u32TimeoutMs` milliseconds. 0 only if the caller owns the mutex afterwards. */
u32 ZU_OS_ObtainMutex(s32 s32MutexId, u32 u32TimeoutMs);
/** Only the thread that obtained the mutex releases it. */
u32 ZU_OS_ReleaseMutex(s32 s32MutexId);
u32 ZU_OS_DeleteMutex(s32 s32MutexId);

/** Creates a task and writes its id, which is 1 or more. The entry may run before this returns. */
u32 ZU_OS_CreateTask(const ZU_OS_TaskAttr_t* pstAttr, s32* ps32TaskId);
/**
 * Deletes a task, even if its entry has returned or has not run yet; it then never runs. After the
 * call the task executes nothing, and its stack may be freed. Do not call it for the calling task.
 */
u32 ZU_OS_DeleteTask(s32 s32TaskId);
/** Blocks the calling thread for `u32Ms` milliseconds. */
u32 ZU_OS_DelayTask(u32 u32Ms);

/** Writes the system time in milliseconds, an opaque start for ZU_OS_TimerDiffTimeFromNow. */
u32 ZU_OS_GetSystemTime(u32* pu32StartMs);
/** Writes the milliseconds passed since `u32StartMs`, modulo 2^32. */
u32 ZU_OS_TimerDiffTimeFromNow(u32 u32StartMs, u32* pu32ElapsedMs);

/** Physical to virtual address through the uncached mapping; writes the address on success. */
u32 ZU_OS_Pa2NonCachedVa(u64 u64PhyAddr, u64* pu64VirtAddr);
/** Physical to virtual address through the cached mapping; writes the address on success. */
u32 ZU_OS_Pa2CachedVa(u64 u64PhyAddr, u64* pu64VirtAddr);
/** Virtual to physical address, for an address of either mapping. */
u32 ZU_OS_Va2Pa(u64 u64VirtAddr, u64* pu64PhyAddr);
/** Writes back the data cache of a virtual range of `u32Size` bytes. */
u32 ZU_OS_DcacheFlush(u64 u64VirtAddr, u32 u32Size);
/** Drains the write buffers between CPU and memory. */
u32 ZU_OS_FlushMemory(void);

/** IOMMU allocation: the caller fills everything but the address. */
typedef struct {
    /** NUL-terminated name of the block's heap, "vdec_fb" for pictures */
    char acTag[32];
    /** bytes */
    u32 u32Size;
    /** 3 = accessible to capture and CPU */
    u32 u32Flags;
    /** 0 */
    u8 bSecure;
    /** 0 */
    u8 au8Reserved[7];
    /** out: physical address of the block */
    u64 u64PhyAddr;
} ZU_OS_IommuAlloc_t;
ZU_ASSERT_DEVICE_SIZE(ZU_OS_IommuAlloc_t, 56);
ZU_ASSERT_DEVICE_OFFSET(ZU_OS_IommuAlloc_t, u32Size, 32);
ZU_ASSERT_DEVICE_OFFSET(ZU_OS_IommuAlloc_t, u32Flags, 36);
ZU_ASSERT_DEVICE_OFFSET(ZU_OS_IommuAlloc_t, bSecure, 40);
ZU_ASSERT_DEVICE_OFFSET(ZU_OS_IommuAlloc_t, u64PhyAddr, 48);

typedef struct {
    /** as ZU_OS_AllocateIommuMemory wrote it */
    u64 u64PhyAddr;
    /** the size that was allocated, bytes */
    u32 u32Size;
    /** 0 */
    u32 u32Reserved;
} ZU_OS_IommuFree_t;
ZU_ASSERT_DEVICE_SIZE(ZU_OS_IommuFree_t, 16);
ZU_ASSERT_DEVICE_OFFSET(ZU_OS_IommuFree_t, u32Size, 8);

/** Record of E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD and _PUT_BUFFD. */
typedef struct {
    /** GET: physical address inside the block to describe */
    u64 u64PhyAddr;
    /** GET: out, a descriptor to map; PUT: the descriptor to return; -1 = none */
    s32 s32Fd;
    /** 0 */
    u32 u32Reserved;
} ZU_OS_IommuBufFd_t;
ZU_ASSERT_DEVICE_SIZE(ZU_OS_IommuBufFd_t, 16);
ZU_ASSERT_DEVICE_OFFSET(ZU_OS_IommuBufFd_t, s32Fd, 8);

/** Record of E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFINFO. */
typedef struct {
    /** in: a physical address inside the block */
    u64 u64PhyAddr;
    /** out: physical start of the block that contains it */
    u64 u64StartPhyAddr;
    /** 0 */
    u64 u64Reserved;
} ZU_OS_IommuBufInfo_t;
ZU_ASSERT_DEVICE_SIZE(ZU_OS_IommuBufInfo_t, 24);
ZU_ASSERT_DEVICE_OFFSET(ZU_OS_IommuBufInfo_t, u64StartPhyAddr, 8);

typedef enum {
    /** ZU_OS_IommuBufFd_t; each GET needs one PUT */
    E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD = 0,
    /** ZU_OS_IommuBufFd_t */
    E_ZU_OS_IOMMU_OPERATION_TYPE_PUT_BUFFD = 1,
    /** ZU_OS_IommuBufInfo_t */
    E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFINFO = 2
} ZU_OS_IommuOperationType_e;

/**
 * Allocates a physically contiguous block, 4096-aligned and zeroed; writes its physical address.
 */
u32 ZU_OS_AllocateIommuMemory(ZU_OS_IommuAlloc_t* pstAlloc);
u32 ZU_OS_FreeIommuMemory(const ZU_OS_IommuFree_t* pstFree);
u32 ZU_OS_IommuOperation(ZU_OS_IommuOperationType_e eOperation, void* pRecord);

ZU_EXTERN_C_END

#endif
