/** MPEG transport-stream multiplexer (ISO/IEC 13818-1). */
#ifndef ZU3_TSMUX_H
#define ZU3_TSMUX_H

#include "zu3/types.h"

ZU_EXTERN_C_BEGIN

typedef struct {
    /** 0 */
    u8 u8Reserved;
} ZU_TSMUX_InitParams_t;

typedef struct {
    /** 0 */
    u32 u32Reserved0;
    /** 188, or 192 = a 4-byte arrival time stamp before each packet */
    u32 u32TsPacketSize;
    /** 1 */
    u8 u8Reserved1;
    /** 1 = constant rate at u32CbrBitrate */
    u8 bCbrEnable;
    /** 0 */
    u16 u16Reserved2;
    /** 0 */
    u32 u32Reserved3;
    /** 0 */
    u32 u32Reserved4;
    /** 0x1000 */
    u16 u16Pid0;
    /** 0x0100 */
    u16 u16Pid1;
    /** 0x0100 */
    u16 u16Pid2;
    /** 0x0101 */
    u16 u16Pid3;
    /** bit/s */
    u32 u32CbrBitrate;
    /** address of the output buffer, which fits 32 bits */
    u32 u32OutBufVa;
    /** its size in bytes */
    u32 u32OutBufSize;
} ZU_TSMUX_OpenParams_t;
ZU_ASSERT_DEVICE_SIZE(ZU_TSMUX_OpenParams_t, 40);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_OpenParams_t, u32TsPacketSize, 4);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_OpenParams_t, bCbrEnable, 9);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_OpenParams_t, u16Pid0, 20);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_OpenParams_t, u32CbrBitrate, 28);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_OpenParams_t, u32OutBufVa, 32);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_OpenParams_t, u32OutBufSize, 36);

enum {
    /** the output buffer has no room; pushes answer ZU_BUSY */
    E_ZU_TSMUX_EVENT_OUTPUT_BUFFER_FULL = 2
};

typedef u32 (*ZU_TSMUX_Callback)(s32 s32Handle, u32 u32Event, void* pEventData, void* pUserData);

typedef struct {
    /** 0 when registering; the id that was returned when removing */
    u64 u64CallbackId;
    /** NULL when removing */
    ZU_TSMUX_Callback pfnCallback;
    /** 3 when registering */
    u32 u32EventMask;
    /** passed to the callback unchanged */
    void* pUserData;
    /** 0 */
    u32 u32Reserved;
} ZU_TSMUX_CallbackParams_t;
ZU_ASSERT_DEVICE_SIZE(ZU_TSMUX_CallbackParams_t, 24);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_CallbackParams_t, pfnCallback, 8);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_CallbackParams_t, u32EventMask, 12);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_CallbackParams_t, pUserData, 16);

/** Attributes of ZU_TSMUX_SetAttr. */
typedef enum {
    /** ZU_TSMUX_AvInterleaving_t */
    E_ZU_TSMUX_PARAMTYPE_AV_INTERLEAVING_CONTROL = 0x200,
    /** u8, 1 = a stop drops data that is not multiplexed yet */
    E_ZU_TSMUX_PARAMTYPE_IGNORE_REMAIN_MEDIA_DATA_WHEN_STOP = 0x202,
    /** ZU_TSMUX_PtsContinuity_t */
    E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL = 0x203
} ZU_TSMUX_ParamType_e;

typedef struct {
    u32 bEnable;
    /** how far one stream may run ahead of the other, milliseconds */
    u32 u32LeavingTimeMs;
} ZU_TSMUX_AvInterleaving_t;
ZU_ASSERT_DEVICE_SIZE(ZU_TSMUX_AvInterleaving_t, 8);

typedef struct {
    u32 bEnable;
    /** 0 */
    u32 u32Reserved;
    /** ticks of the 90 kHz clock (ISO/IEC 13818-1, 2.4.3.7): greatest step forward, 180000 */
    u64 u64MaxForward;
    /** greatest step backward, 90000 */
    u64 u64MaxBackward;
} ZU_TSMUX_PtsContinuity_t;
ZU_ASSERT_DEVICE_SIZE(ZU_TSMUX_PtsContinuity_t, 24);

typedef enum {
    E_ZU_TSMUX_STREAM_VIDEO_OTHER = 3,
    E_ZU_TSMUX_STREAM_VIDEO_H264 = 4,
    E_ZU_TSMUX_STREAM_AUDIO_MP3 = 0x101,
    E_ZU_TSMUX_STREAM_AUDIO_AAC = 0x104
} ZU_TSMUX_StreamType_e;

typedef struct {
    /** 0 */
    u32 u32Reserved0;
    /** ZU_TSMUX_StreamType_e */
    u32 eStreamType;
    /** 0x0101 video, 0x0102 audio */
    u16 u16Pid;
    /** PES stream_id (ISO/IEC 13818-1, table 2-22): 0xE0 video, 0xC0 audio */
    u8 u8StreamId;
    /** 0 */
    u8 u8Reserved1;
} ZU_TSMUX_MediaSourceParams_t;
ZU_ASSERT_DEVICE_SIZE(ZU_TSMUX_MediaSourceParams_t, 12);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_MediaSourceParams_t, u16Pid, 8);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_MediaSourceParams_t, u8StreamId, 10);

typedef struct {
    /** from ZU_TSMUX_AttachMediaSource */
    u64 u64MuxSrcId;
    /** one access unit; must stay valid until the push returns */
    u8* pu8Data;
    /** bytes */
    u32 u32DataSize;
    /** microseconds from the recording's first frame; all ones = none */
    u64 u64Pts;
} ZU_TSMUX_MediaData_t;
ZU_ASSERT_DEVICE_SIZE(ZU_TSMUX_MediaData_t, 24);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_MediaData_t, pu8Data, 8);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_MediaData_t, u32DataSize, 12);
ZU_ASSERT_DEVICE_OFFSET(ZU_TSMUX_MediaData_t, u64Pts, 16);

typedef struct {
    /** 0 */
    u8 u8Reserved;
} ZU_TSMUX_StartParams_t;

u32 ZU_TSMUX_Init(const ZU_TSMUX_InitParams_t* pstParams);
u32 ZU_TSMUX_DeInit(void);
u32 ZU_TSMUX_Open(const ZU_TSMUX_OpenParams_t* pstParams, u32* pu32Handle);
u32 ZU_TSMUX_Close(u32 u32Handle);
u32 ZU_TSMUX_RegisterCallback(u32 u32Handle, const ZU_TSMUX_CallbackParams_t* pstParams,
                              u64* pu64CallbackId);
/** Removes the multiplexer's callback; succeeds if there is none. */
u32 ZU_TSMUX_UnRegisterCallback(u32 u32Handle, const ZU_TSMUX_CallbackParams_t* pstParams);
u32 ZU_TSMUX_SetAttr(u32 u32Handle, u32 u32Type, const void* pValue);
u32 ZU_TSMUX_AttachMediaSource(u32 u32Handle, const ZU_TSMUX_MediaSourceParams_t* pstParams,
                               u64* pu64MuxSrcId);
u32 ZU_TSMUX_DetachMediaSource(u32 u32Handle, u64 u64MuxSrcId);
u32 ZU_TSMUX_Start(u32 u32Handle, const ZU_TSMUX_StartParams_t* pstParams);
/**
 * Stops accepting media data. Multiplexed data can be copied out until the multiplexer is closed.
 */
u32 ZU_TSMUX_Stop(u32 u32Handle);
/** Multiplexes one access unit. 0 = accepted whole; ZU_BUSY = no room, nothing accepted. */
u32 ZU_TSMUX_PushMediaData(u32 u32Handle, const ZU_TSMUX_MediaData_t* pstData);
/**
 * Moves at most `u32MaxSize` bytes of the stream to `pDst`, whole packets only. `pu32Copied`
 * receives the number of bytes, 0 if there are none.
 */
u32 ZU_TSMUX_CopyOutputStream(u32 u32Handle, void* pDst, u32 u32MaxSize, u32* pu32Copied);

ZU_EXTERN_C_END

#endif
