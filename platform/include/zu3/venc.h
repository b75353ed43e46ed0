/**
 * Video encoder. Pictures enter through lent buffers (query, fill, complete) or, if the encoder
 * offers one, through its entire inject buffer. Encoded frames arrive on the encoder's callback
 * thread.
 */
#ifndef ZU3_VENC_H
#define ZU3_VENC_H

#include "zu3/types.h"

ZU_EXTERN_C_BEGIN

typedef struct {
    /** 0 */
    u8 u8Reserved;
} ZU_VENC_InitParams_t;

typedef struct {
    /** pixels */
    u32 u32MaxWidth;
    /** lines */
    u32 u32MaxHeight;
    /** pictures per second */
    u32 u32MaxFrameRate;
    /** bit 0 = H.264 */
    u32 u32CodecSupport;
    /** alignment of picture addresses in bytes, a power of two */
    u32 u32MemAlign;
    u8 au8Reserved[16];
} ZU_VENC_Caps_t;
ZU_ASSERT_DEVICE_SIZE(ZU_VENC_Caps_t, 36);

typedef enum {
    /** ISO/IEC 14496-10 */
    E_ZU_VENC_CODEC_H264 = 1
} ZU_VENC_CodecType_e;

/** How the encoder gets its pictures; both values mean NV12. */
typedef enum {
    /** pictures in lent buffers */
    E_ZU_VENC_COLOR_COPY = 0,
    /** pictures in the entire inject buffer, if the encoder offers one */
    E_ZU_VENC_COLOR_INJECT = 6
} ZU_VENC_ColorFormat_e;

typedef enum {
    /** u8FrameType of a key frame; such a record has no input-buffer index */
    E_ZU_VENC_FRAME_TYPE_KEY = 0xFF
} ZU_VENC_FrameType_e;

enum {
    /** callback event: an encoded frame; also its bit in u32EventMask */
    ZU_VENC_EVENT_FRAME = 1,
    /** ZU_VENC_SetAttr: one u32, bit rate in units of 1024 bit/s */
    ZU_VENC_ATTR_BITRATE = 1
};

/** An encoded frame; the record and its bytes are valid during the callback only. */
typedef struct {
    /** the bytes; NULL with size 0 = the encoder dropped the picture */
    u8* pu8Data;
    /** their number */
    u32 u32DataSize;
    /** ZU_VENC_FrameType_e; other values are not key frames */
    u8 u8FrameType;
    u8 au8Reserved0[7];
    /** microseconds; all ones = none */
    u64 u64Pts;
    /** u32InBufIndex of the frame's input picture */
    u32 u32InBufIndex;
    u32 u32Reserved1;
} ZU_VENC_FrameInfo_t;
ZU_ASSERT_DEVICE_SIZE(ZU_VENC_FrameInfo_t, 32);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_FrameInfo_t, u32DataSize, 4);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_FrameInfo_t, u8FrameType, 8);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_FrameInfo_t, u64Pts, 16);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_FrameInfo_t, u32InBufIndex, 24);

/**
 * Called once per encoded frame, one call at a time, on the encoder's thread, or on the capture's
 * behind the callback with that picture; a result other than 0 is the callee's own report.
 */
typedef u32 (*ZU_VENC_Callback)(s32 s32Handle, u32 u32Event, ZU_VENC_FrameInfo_t* pstFrame,
                                void* pUserData);

typedef struct {
    /** "venc0" */
    const char* pu8Name;
    /** ZU_VENC_ColorFormat_e */
    u32 eColorFormat;
    /** pixels */
    u32 u32Width;
    /** lines */
    u32 u32Height;
    /** pictures per second */
    u32 u32FrameRate;
    /** in units of 1024 bit/s */
    u32 u32Bitrate;
    /** 0 */
    u32 u32Reserved0;
    /** 0 */
    u32 u32Reserved1;
    /** profile_idc (66 Baseline, 77 Main), 0 = the encoder's choice */
    u32 u32Profile;
    /** ten times level_idc (310 = level 3.1, 101 = level 1b), 0 = the encoder's choice */
    u32 u32Level;
    /** ZU_VENC_CodecType_e */
    u32 eCodecType;
    ZU_VENC_Callback pfnCallback;
    /** ZU_VENC_EVENT_FRAME */
    u32 u32EventMask;
    /** passed to the callback unchanged */
    void* pUserData;
    /** 0 */
    u32 u32Reserved2;
} ZU_VENC_OpenParams_t;
ZU_ASSERT_DEVICE_SIZE(ZU_VENC_OpenParams_t, 60);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_OpenParams_t, eColorFormat, 4);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_OpenParams_t, u32Bitrate, 20);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_OpenParams_t, u32Profile, 32);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_OpenParams_t, eCodecType, 40);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_OpenParams_t, pfnCallback, 44);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_OpenParams_t, pUserData, 52);

typedef struct {
    /** 0 */
    u8 u8Reserved;
} ZU_VENC_StartParams_t;

/** An input picture. */
typedef struct {
    /** from ZU_VENC_QueryBuffer, or set by the caller in inject mode */
    u8* pu8Data;
    /** bytes at pu8Data, from the same side */
    u32 u32DataSize;
    /** 1 = pu8Data lies in the entire inject buffer, 0 = in a lent buffer */
    u8 bEntireInject;
    /** 1 = encode this picture as a key frame */
    u8 bRequestIFrame;
    /** 0 */
    u8 au8Reserved0[6];
    /** microseconds of the monotonic clock */
    u64 u64Pts;
    /** 0 to 15, returned with the encoded frame */
    u32 u32InBufIndex;
    /** 0 */
    u32 u32Reserved1;
} ZU_VENC_InputBuffer_t;
ZU_ASSERT_DEVICE_SIZE(ZU_VENC_InputBuffer_t, 32);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_InputBuffer_t, u32DataSize, 4);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_InputBuffer_t, bEntireInject, 8);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_InputBuffer_t, bRequestIFrame, 9);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_InputBuffer_t, u64Pts, 16);
ZU_ASSERT_DEVICE_OFFSET(ZU_VENC_InputBuffer_t, u32InBufIndex, 24);

/** The encoder's entire inject buffer: a region that a capture may write its pictures into. */
typedef struct {
    /** its address, which fits 32 bits; 0 = the encoder offers none */
    u32 u32VirtAddr;
    /** bytes */
    u32 u32Size;
    u8 au8Reserved[24];
} ZU_VENC_EntireInjectBuf_t;
ZU_ASSERT_DEVICE_SIZE(ZU_VENC_EntireInjectBuf_t, 32);

u32 ZU_VENC_Init(const ZU_VENC_InitParams_t* pstParams);
u32 ZU_VENC_DeInit(void);
u32 ZU_VENC_GetCaps(ZU_VENC_Caps_t* pstCaps);
u32 ZU_VENC_Open(const ZU_VENC_OpenParams_t* pstParams, u32* pu32Handle);
u32 ZU_VENC_Close(u32 u32Handle);
u32 ZU_VENC_Start(u32 u32Handle, const ZU_VENC_StartParams_t* pstParams);
/** Stops encoding. A callback in progress may outlast this call. */
u32 ZU_VENC_Stop(u32 u32Handle);
/** Lends an input buffer: fills pu8Data and u32DataSize. Fails if none is free. */
u32 ZU_VENC_QueryBuffer(u32 u32Handle, ZU_VENC_InputBuffer_t* pstBuffer);
/** Passes a filled picture to the encoder. */
u32 ZU_VENC_WriteBufferComplete(u32 u32Handle, const ZU_VENC_InputBuffer_t* pstBuffer);
u32 ZU_VENC_QueryEntireInjectBuffer(u32 u32Handle, ZU_VENC_EntireInjectBuf_t* pstBuffer);
u32 ZU_VENC_SetAttr(u32 u32Handle, u32 u32Type, const void* pValue);

ZU_EXTERN_C_END

#endif
