/** The recording table: all state of a recording. */
#ifndef SCREENRECORD_TABLE_RECORDING_TABLE_H
#define SCREENRECORD_TABLE_RECORDING_TABLE_H

#include <optional>

#include <zu3/acap.h>
#include <zu3/cap.h>
#include <zu3/caps.h>
#include <zu3/venc.h>

#include "base/callback_gate.h"
#include "base/cross_thread.h"
#include "base/middleware_mutex.h"
#include "table/worker_state.h"

enum {
    SCREENRECORD_SLOT_COUNT = 2,
    /** delay if the encoder has no free input buffer */
    SCREENRECORD_ENCODER_BUSY_MS = 100,
};

/** A module of a slot: the index of its record, and its bit in the two module masks. */
enum SCREENRECORD_ZuModule_e : u32 {
    /** feeds a file to the video encoder */
    E_SCREENRECORD_MODULE_VIDEO_SRC_READER = 0,
    E_SCREENRECORD_MODULE_AUDIO_SRC_READER = 1,
    /** screen capture */
    E_SCREENRECORD_MODULE_VCAP = 2,
    /** audio capture */
    E_SCREENRECORD_MODULE_ACAP = 3,
    /** video encoder */
    E_SCREENRECORD_MODULE_VENC = 4,
    /** audio encoder; the middleware has no operation for it */
    E_SCREENRECORD_MODULE_AENC = 5,
    /** transport-stream multiplexer and the output file */
    E_SCREENRECORD_MODULE_TSMUX = 6,
    E_SCREENRECORD_MODULE_MAX = 7
};

/** The fields of a module's record that a reset clears. 0 and SCREENRECORD_NO_ID = none. */
struct SCREENRECORD_TaskFields_s {
    /** 1 from a successful module start until the module is stopped */
    CrossThread<u8> bRunning;
    /** SCREENRECORD_ZuModule_e, the record's own index */
    u32 eModule = 0;
    /** middleware handle; a source reader's file handle without its top bit */
    CrossThread<u32> u32Handle;

    /* source readers */
    /** source file */
    CrossThread<u32> u32SrcFile;

    /* VCAP */
    /** parameter of the capture start */
    ZU_CAP_Output_t stCapOutput = {};
    u32 u32CapturePath = 0;
    /** 1 = include the on-screen-display layer */
    u32 u32Osd = 0;

    /* VENC, and AENC for u64MuxSrcId */
    /** u64FirstPts is valid */
    CrossThread<u8> bFirstPtsSet;
    /** time stamp of the first encoded frame that had one, microseconds */
    CrossThread<u64> u64FirstPts;
    /** microseconds of the monotonic clock; pictures captured earlier are dropped */
    CrossThread<s64> u64StartTimeUs;
    /** 0 to 15, of the last picture passed to the encoder */
    CrossThread<u32> u32InBufIndex;
    /** of the last encoded frame that carried one */
    CrossThread<u32> u32LastInBufIndex;
    /** media source at the multiplexer */
    CrossThread<u64> u64MuxSrcId;

    /* TSMUX */
    /** output buffer */
    u64 u64OutBufVa = 0;
    /** bytes */
    u32 u32OutBufSize = 0;
    /** of the callback's registration; its user data is the address of this field */
    CrossThread<u64> u64CallbackId;
    /** output file */
    CrossThread<u32> u32OutFile;
    /** 1 = the output buffer is mapped cached */
    u8 bOutBufCached = 0;

    /* worker task */
    CrossThread<s32> s32TaskId = SCREENRECORD_NO_ID;
    /** owned; freed when the task is deleted */
    void* pTaskStack = nullptr;
    /** 1 while the task is being deleted */
    CrossThread<u8> bTaskExit;
    CrossThread<s32> s32MutexId = SCREENRECORD_NO_ID;
    /** no module has a message queue */
    s32 s32QueueId = SCREENRECORD_NO_ID;
    /** the argument block of a task that has not run yet */
    u32* pu32TaskArg = nullptr;
};

/** A writer that closed its own slot, until it is joined. */
struct SCREENRECORD_RetiredWriter_s {
    /** SCREENRECORD_NO_ID = none */
    s32 s32TaskId = SCREENRECORD_NO_ID;
    s32 s32MutexId = SCREENRECORD_NO_ID;
    void* pTaskStack = nullptr;
};

/**
 * One module of one slot. The fields below outlive a reset, because a late callback and a late
 * worker do so too.
 */
struct SCREENRECORD_TaskCtrl_s : SCREENRECORD_TaskFields_s {
    CallbackGate callbackGate;
    WorkerState workerState;
    /** TSMUX; control calls only */
    SCREENRECORD_RetiredWriter_s stRetiredWriter;
};

/** Sources and destination of a recording. Owns the three names. */
struct SCREENRECORD_SrcInfo_s {
    u8 bVideoSrcAssigned = 0;
    u8 bAudioSrcAssigned = 0;
    /** NULL = the screen */
    char* pu8VideoSrcName = nullptr;
    /** 1 = H.264 */
    u32 eVencType = 0;
    /** pixels */
    CrossThread<u32> u32Width;
    /** lines */
    CrossThread<u32> u32Height;
    /** frames per second */
    u32 u32FrameRate = 0;
    /** 1 = include the on-screen-display layer */
    u8 bOsd = 0;
    /** capture-encode interface: bit/s */
    u32 u32OutputBitrate = 0;
    /** bytes of one captured picture */
    CrossThread<u32> u32FrameSize;
    /** still frames: Cap_OutputFmt_e */
    u32 eCapOutputFmt = 0;
    /** NULL = audio capture */
    char* pu8AudioSrcName = nullptr;
    /** 0 = AAC, 1 = MP3 */
    u32 eAencType = 0;
    u8 u8AudioBitWidth = 0;
    u8 bTsmuxOpened = 0;
    /** 188 or 192; 0 = not chosen */
    u32 u32TsPacketSize = 0;
    /** constant rate in units of 1048576 bit/s, 0 = none */
    u32 u32CbrBitrateMb = 0;
    char* pu8DstName = nullptr;
};

struct SCREENRECORD_SlotCtrl_s {
    u32 u32SlotId = 0;
    SCREENRECORD_TaskCtrl_s astTaskCtrl[E_SCREENRECORD_MODULE_MAX];
    SCREENRECORD_SrcInfo_s stSrcInfo;

    /* still frames, slot 0 only */
    /** bytes of the whole block */
    u64 u64CapBufTotalSize = 0;
    /** bytes of one buffer, a multiple of 4096 */
    u64 u64CapFrameSize = 0;
    /** buffers in the block */
    u32 u32MaxFrameNum = 0;
    /** physical address of the block, 0 = none */
    u64 u64CapBufPhyAddr = 0;
    /** bytes per line */
    u32 u32CapPitch = 0;
    /** descriptor of the block; 0 is a valid one */
    s32 s32CapBufFd = SCREENRECORD_NO_ID;
};

/** Capabilities of the modules, queried into one block. */
struct SCREENRECORD_ModuleCaps_s {
    ZU_ACAP_Caps_t stAcapCaps;
    ZU_VENC_Caps_t stVencCaps;
    ZU_VIDEO_Caps_t stVideoCaps;
    ZU_AUDIO_Caps_t stAudioCaps;
};
static_assert(sizeof(SCREENRECORD_ModuleCaps_s) == 68);

extern SCREENRECORD_SlotCtrl_s _astSlotCtrl[SCREENRECORD_SLOT_COUNT];
extern SCREENRECORD_ModuleCaps_s _stModuleCaps;
extern u8 _bModuleInited;
/** bit m: module m counts as initialised */
extern u32 _u32ModuleInitMask;
/** bit m: this library initialised module m and de-initialises it */
extern u32 _u32ModuleDeinitMask;
/** 1 = ZU_SYS_Init was called; never cleared */
extern u8 _bSysInited;
/** record-time limit in seconds, 0 = none */
extern CrossThread<u32> _u32RecordTime;

inline SCREENRECORD_TaskCtrl_s* _SCREENRECORD_TaskOf(u32 u32SlotId, SCREENRECORD_ZuModule_e eModule)
{
    return &_astSlotCtrl[u32SlotId].astTaskCtrl[eModule];
}
/** The capture of slot 0, which the capture-encode and still-frame interfaces also use. */
inline SCREENRECORD_TaskCtrl_s* _SCREENRECORD_CaptureTask(void)
{
    return _SCREENRECORD_TaskOf(0, E_SCREENRECORD_MODULE_VCAP);
}
/** The slot of a module's record; NULL for a record outside the table. */
SCREENRECORD_SlotCtrl_s* _SCREENRECORD_SlotOf(const SCREENRECORD_TaskCtrl_s* pstTask);

/** Clears a module's record and sets its index. Withdraw the handle first. */
void _SCREENRECORD_ClearTask(SCREENRECORD_TaskCtrl_s* pstTask, SCREENRECORD_ZuModule_e eModule);
/** Frees the names and clears the record. */
void _SCREENRECORD_ClearSrcInfo(SCREENRECORD_SrcInfo_s* pstSrcInfo);

/**
 * Withdraws the handle from a record and waits for the callbacks that found it there.
 * @return the handle
 */
u32 _SCREENRECORD_WithdrawHandle(SCREENRECORD_TaskCtrl_s* pstTask);

/**
 * Finds the record with a callback's handle. A close of that module waits while the guard lives. If
 * no slot has the handle, Found() is false and the callback must return.
 */
class CallbackGuard {
public:
    CallbackGuard(SCREENRECORD_ZuModule_e eModule, u32 u32Handle);

    bool Found() const { return m_pass.has_value(); }
    u32 SlotId() const { return m_u32SlotId; }

private:
    u32 m_u32SlotId = 0;
    std::optional<GatePass> m_pass;
};

/** The guard's slot. ZU_FAILURE, a log line and slot 0 if no slot has its handle. */
u32 _SCREENRECORD_Handle2SlotId(const CallbackGuard& guard, u32* pu32SlotId);

#endif
