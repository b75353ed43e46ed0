/**
 * Audio capture: PCM of the sound that the device plays, 48 kHz, two channels, 16 bits,
 * little-endian, interleaved.
 */
#ifndef ZU3_ACAP_H
#define ZU3_ACAP_H

#include "zu3/types.h"

ZU_EXTERN_C_BEGIN

typedef struct {
    /** 0 */
    u8 u8Reserved;
} ZU_ACAP_InitParams_t;

typedef struct {
    u32 u32Reserved;
} ZU_ACAP_Caps_t;
ZU_ASSERT_DEVICE_SIZE(ZU_ACAP_Caps_t, 4);

typedef struct {
    /** "acap_s" */
    const char* pu8Name;
    /** 0 */
    u32 u32Reserved;
} ZU_ACAP_OpenParams_t;
ZU_ASSERT_DEVICE_SIZE(ZU_ACAP_OpenParams_t, 8);

/** audio capture events; the library acts on none of them */
typedef u32 ZU_ACAP_CallbackEvent_e;

typedef u32 (*ZU_ACAP_Callback)(s32 s32Handle, ZU_ACAP_CallbackEvent_e eEvent, void* pEventData,
                                void* pUserData);

typedef struct {
    /** 0 */
    u64 u64CallbackId;
    /** NULL when removing */
    ZU_ACAP_Callback pfnCallback;
    /** 1 */
    u32 u32EventMask;
    /** NULL */
    void* pUserData;
    /** 0 */
    u32 u32Reserved;
} ZU_ACAP_CallbackParams_t;
ZU_ASSERT_DEVICE_SIZE(ZU_ACAP_CallbackParams_t, 24);
ZU_ASSERT_DEVICE_OFFSET(ZU_ACAP_CallbackParams_t, pfnCallback, 8);
ZU_ASSERT_DEVICE_OFFSET(ZU_ACAP_CallbackParams_t, u32EventMask, 12);
ZU_ASSERT_DEVICE_OFFSET(ZU_ACAP_CallbackParams_t, pUserData, 16);

typedef struct {
    /** 0 */
    u8 u8Reserved;
} ZU_ACAP_StartParams_t;

enum {
    /** ZU_ACAP_GetAttr: one u32, the bytes waiting to be read */
    ZU_ACAP_ATTR_BUFFER_LEVEL = 1
};

typedef struct {
    /** destination */
    void* pBuffer;
    /** size of the destination, bytes */
    u32 u32Size;
} ZU_ACAP_ReadRequest_t;
ZU_ASSERT_DEVICE_SIZE(ZU_ACAP_ReadRequest_t, 8);

typedef struct {
    /** bytes written */
    u32 u32Size;
    u8 au8Reserved[12];
} ZU_ACAP_ReadResult_t;
ZU_ASSERT_DEVICE_SIZE(ZU_ACAP_ReadResult_t, 16);

u32 ZU_ACAP_Init(const ZU_ACAP_InitParams_t* pstParams);
u32 ZU_ACAP_DeInit(void);
u32 ZU_ACAP_GetCaps(ZU_ACAP_Caps_t* pstCaps);
u32 ZU_ACAP_Open(const ZU_ACAP_OpenParams_t* pstParams, u32* pu32Handle);
u32 ZU_ACAP_Close(u32 u32Handle);
u32 ZU_ACAP_RegisterCallback(u32 u32Handle, const ZU_ACAP_CallbackParams_t* pstParams,
                             u64* pu64CallbackId);
u32 ZU_ACAP_UnRegisterCallback(u32 u32Handle, const ZU_ACAP_CallbackParams_t* pstParams);
/** Sets the capture volume, 0 to 100 percent. */
u32 ZU_ACAP_SetVolume(u32 u32Handle, u32 u32Volume);
u32 ZU_ACAP_Start(u32 u32Handle, const ZU_ACAP_StartParams_t* pstParams);
u32 ZU_ACAP_Stop(u32 u32Handle);
/** Reads attribute `u32Type`; `u32Index` is 0. */
u32 ZU_ACAP_GetAttr(u32 u32Handle, u32 u32Type, u32 u32Index, void* pValue);
/** Copies out available bytes. Does not wait for more. */
u32 ZU_ACAP_Read(u32 u32Handle, const ZU_ACAP_ReadRequest_t* pstRequest,
                 ZU_ACAP_ReadResult_t* pstResult);

ZU_EXTERN_C_END

#endif
