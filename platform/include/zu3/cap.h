/**
 * Display capture. A device captures nothing until its input is connected to a display; while it
 * runs, it calls the registered callback on its thread, one picture at a time. Handles are u32, 0 =
 * none.
 */
#ifndef ZU3_CAP_H
#define ZU3_CAP_H

#include "zu3/types.h"

ZU_EXTERN_C_BEGIN

/** Picture formats that a capture writes. */
typedef enum {
    /** packed 4:2:2, 2 bytes per pixel */
    E_ZU_CAP_FORMAT_YUYV = 0,
    /** 2 bytes per pixel, little-endian */
    E_ZU_CAP_FORMAT_RGB565 = 1,
    /** 4 bytes per pixel, blue first in memory */
    E_ZU_CAP_FORMAT_BGRA = 2,
    /** 4:2:0, a luma plane and an interleaved CbCr plane */
    E_ZU_CAP_FORMAT_NV12 = 5
} ZU_CAP_Format_e;

typedef struct {
    /** 0 = the composed picture */
    u8 u8CapturePath;
} ZU_CAP_OpenParams_t;
ZU_ASSERT_DEVICE_SIZE(ZU_CAP_OpenParams_t, 1);

/** Given to ZU_CAP_ConnectInput; the library sets the first byte only, to 0. */
typedef struct {
    u8 u8InputPort;
    u8 au8Reserved[3];
} ZU_CAP_ConnectParams_t;

/** Output of a capture; inside ZU_CAP_CaptureParams_t. */
typedef struct {
    /** output buffer, 0 = the device's own buffers */
    u64 u64VirtAddr;
    /** bytes of the output buffer */
    u32 u32OutSize;
    /** pixels; a multiple of 16 while streaming */
    u32 u32OutWidth;
    /** lines; a multiple of 32 while streaming */
    u32 u32OutHeight;
    /** pictures per second, 0 for a single capture */
    u32 u32OutFrameRate;
    /** ZU_CAP_Format_e */
    u32 eOutFormat;
    /** -1 = none, set before each start */
    s32 s32OutFd;
    /** bytes per line, 0 = the format's own for the width */
    u32 u32Pitch;
    /** 0 */
    u32 u32Reserved;
    /** physical address of the output buffer, 0 = none */
    u64 u64PhyAddr;
    /** 0 */
    u8 au8Reserved[40];
} ZU_CAP_Output_t;
ZU_ASSERT_DEVICE_SIZE(ZU_CAP_Output_t, 88);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_Output_t, u32OutSize, 8);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_Output_t, u32OutWidth, 12);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_Output_t, u32OutHeight, 16);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_Output_t, u32OutFrameRate, 20);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_Output_t, eOutFormat, 24);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_Output_t, s32OutFd, 28);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_Output_t, u32Pitch, 32);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_Output_t, u64PhyAddr, 40);

/** Given to ZU_CAP_CaptureStart and ZU_CAP_CaptureOne; zero except the fields below. */
typedef struct {
    /** 0 */
    u32 u32CapturePath;
    /** 1 = the on-screen-display layer is part of the picture */
    u32 u32Osd;
    /** 0 */
    u8 au8Reserved0[168];
    ZU_CAP_Output_t stOutput;
    /** 0 */
    u8 au8Reserved1[32];
} ZU_CAP_CaptureParams_t;
ZU_ASSERT_DEVICE_SIZE(ZU_CAP_CaptureParams_t, 296);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_CaptureParams_t, u32Osd, 4);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_CaptureParams_t, stOutput, 176);

/** A captured picture. Valid until its buffer is given back with ZU_CAP_ProcessBufDone. */
typedef struct {
    /** capture buffer with the picture */
    u32 u32BufIndex;
    u32 u32Reserved0;
    /** physical address of the luma plane (or of the only plane) */
    u64 phyYAddr;
    /** physical address of the chroma plane, 0 = none */
    u64 phyCAddr;
    u64 u64Reserved1;
} ZU_CAP_FrameInfo_t;
ZU_ASSERT_DEVICE_SIZE(ZU_CAP_FrameInfo_t, 32);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_FrameInfo_t, phyYAddr, 8);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_FrameInfo_t, phyCAddr, 16);

/** Called once per captured picture; the result is ignored. */
typedef u32 (*ZU_CAP_Callback)(s32 s32Handle, u32 u32Event, ZU_CAP_FrameInfo_t* pstFrame,
                               void* pUserData);

/** Exchanged with ZU_CAP_RegisterCallback and ZU_CAP_UnRegisterCallback. */
typedef struct {
    /** 0 when registering; the id that was returned when removing */
    u64 u64CallbackId;
    ZU_CAP_Callback pfnCallback;
    /** 1 = captured pictures */
    u32 u32EventMask;
    /** passed to the callback unchanged */
    void* pUserData;
    /** 0 */
    u32 u32Reserved;
} ZU_CAP_CallbackParams_t;
ZU_ASSERT_DEVICE_SIZE(ZU_CAP_CallbackParams_t, 24);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_CallbackParams_t, pfnCallback, 8);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_CallbackParams_t, u32EventMask, 12);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_CallbackParams_t, pUserData, 16);
ZU_ASSERT_DEVICE_OFFSET(ZU_CAP_CallbackParams_t, u32Reserved, 20);

u32 ZU_CAP_DeInit(void);
/** Opens a capture device; writes its handle. */
u32 ZU_CAP_Open(const ZU_CAP_OpenParams_t* pstParams, u32* pu32Handle);
u32 ZU_CAP_Close(u32 u32Handle);
/**
 * Binds the device's input to a display (ZU_DISP_GetHandle); fails when the display cannot be
 * reached.
 */
u32 ZU_CAP_ConnectInput(u32 u32Handle, u32 u32DispHandle, const ZU_CAP_ConnectParams_t* pstParams);
u32 ZU_CAP_DisconnectInput(u32 u32Handle, u32 u32DispHandle);
/**
 * Sets the device's callback and writes the registration's id. Pictures may arrive before this
 * returns.
 */
u32 ZU_CAP_RegisterCallback(u32 u32Handle, const ZU_CAP_CallbackParams_t* pstParams,
                            u64* pu64CallbackId);
u32 ZU_CAP_UnRegisterCallback(u32 u32Handle, const ZU_CAP_CallbackParams_t* pstParams);
/** Starts delivering pictures at stOutput.u32OutFrameRate. */
u32 ZU_CAP_CaptureStart(u32 u32Handle, const ZU_CAP_CaptureParams_t* pstParams);
/** Stops delivering. A callback that is running may still be running when this returns. */
u32 ZU_CAP_CaptureStop(u32 u32Handle);
/**
 * Captures one picture into stOutput.u64PhyAddr; returns when it is there. The device need not be
 * started.
 */
u32 ZU_CAP_CaptureOne(u32 u32Handle, const ZU_CAP_CaptureParams_t* pstParams,
                      ZU_CAP_FrameInfo_t* pstFrame);
/** Gives a capture buffer back to the device. */
u32 ZU_CAP_ProcessBufDone(u32 u32Handle, u32 u32BufIndex);

ZU_EXTERN_C_END

#endif
