#include <screenrecord/screenrecord.h>

#include "base/log.h"
#include "modules/module.h"
#include "modules/sound_capture.h"
#include "table/control_call.h"

namespace {

enum {
    PREFERRED_READ_SIZE = 12288,
    SAMPLE_RATE = 48000,
    CHANNELS = 2,
    SAMPLE_FORMAT_S16 = 1,
    /** bytes; beyond it the device is about to lose sound */
    HIGHEST_LEVEL = 49152,
};

SCREENRECORD_TaskCtrl_s* AudioTask()
{
    return _SCREENRECORD_TaskOf(0, E_SCREENRECORD_MODULE_ACAP);
}

} // namespace

s32 audio_cap_open(void)
{
    const ControlLock lock(_controlMutex);
    SCREENRECORD_TaskCtrl_s* pstTask = AudioTask();
    _SCREENRECORD_ReclaimRetiredWriter(0);
    if (pstTask->u32Handle != 0) {
        SR_LOGE(" Acap not closed,Please close acap!handle =%x\n", pstTask->u32Handle.Get());
        return -1;
    }
    if (_SCREENRECORD_InitModule(E_SCREENRECORD_MODULE_ACAP) != ZU_OK) {
        SR_LOGE(" _SCREENRECORD_InitModule Failed!\n");
        return -1;
    }
    _SCREENRECORD_ResetTask(pstTask, E_SCREENRECORD_MODULE_ACAP);
    if (_SCREENRECORD_OpenAcap(pstTask, 0) != ZU_OK) {
        SR_LOGE(" _SCREENRECORD_OpenAcap Failed!\n");
        return -1;
    }
    return 0;
}

s32 audio_cap_start(void)
{
    const ControlLock lock(_controlMutex);
    if (_SCREENRECORD_StartModule(AudioTask(), 0) != ZU_OK) {
        SR_LOGE(" _SCREENRECORD_StartModule cap Failed!\n");
        return -1;
    }
    return 0;
}

s32 audio_cap_stop(void)
{
    const ControlLock lock(_controlMutex);
    if (_SCREENRECORD_StopModule(AudioTask()) != ZU_OK) {
        SR_LOGE(" _SCREENRECORD_StopModule cap Failed!\n");
        return -1;
    }
    return 0;
}

s32 audio_cap_close(void)
{
    const ControlLock lock(_controlMutex);
    if (AudioTask()->u32Handle == 0)
        return 0;
    if (_SCREENRECORD_CloseAcap(AudioTask()) != ZU_OK) {
        SR_LOGE(" _SCREENRECORD_CloseAcap cap Failed!\n");
        return -1;
    }
    return 0;
}

s32 audio_cap_getInfo(AudioCap_Info* info)
{
    info->u64BufSize = PREFERRED_READ_SIZE;
    info->u32Channels = CHANNELS;
    info->u64SampleRate = SAMPLE_RATE;
    info->u32SampleFormat = SAMPLE_FORMAT_S16;
    return 0;
}

u64 audio_cap_getLostSize(void)
{
    return 0;
}

s32 audio_cap_getPCM(u8* buffer, u64 bufSize, u64* pSize)
{
    // A close on another thread waits until this call has left the record.
    const GatePass pass(AudioTask()->callbackGate);
    const u32 u32Handle = AudioTask()->u32Handle;
    if (u32Handle == 0) {
        SR_LOGE("Error: %s: acap not opened!!", __func__);
        return -1;
    }
    u32 u32Level = 0;
    u32 u32Result = ZU_ACAP_GetAttr(u32Handle, ZU_ACAP_ATTR_BUFFER_LEVEL, 0, &u32Level);
    if (u32Result != ZU_OK) {
        SR_LOGE("Error: %s: ZU_ACAP_GetAttr fail, ret=0x%x!!", __func__, u32Result);
        return -1;
    }
    SR_LOGD("AudioInfo: %s: buffer level 0x%x, buffer size 0x%llx", __func__, u32Level,
            static_cast<unsigned long long>(bufSize));
    if (u32Level < bufSize) {
        *pSize = 0;
        return 0;
    }
    if (u32Level > HIGHEST_LEVEL)
        SR_LOGE("Error: %s: Out of buffer level %d!!", __func__, static_cast<int>(u32Level));

    const ZU_ACAP_ReadRequest_t stRequest = {.pBuffer = buffer,
                                             .u32Size = static_cast<u32>(bufSize)};
    ZU_ACAP_ReadResult_t stResult = {};
    u32Result = ZU_ACAP_Read(u32Handle, &stRequest, &stResult);
    if (u32Result == ZU_OK)
        // clamp a count beyond the request: the caller relies on it
        *pSize = stResult.u32Size < stRequest.u32Size ? stResult.u32Size : stRequest.u32Size;
    else
        SR_LOGE("%s: ZU_ACAP_Read fail, ret=0x%x!!", __func__, u32Result);
    SR_LOGD("AudioInfo: %s: data_size %d", __func__, static_cast<int>(stResult.u32Size));
    return 0;
}
