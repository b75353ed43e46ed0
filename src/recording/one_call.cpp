#include <screenrecord/screenrecord.h>

#include "base/log.h"
#include "table/control_call.h"
#include "table/recording_table.h"

namespace {

/** Not const, because the exported functions' parameters are not. */
u8 _au8ScreenSource[] = "cap";

} // namespace

s32 startScreenRecord(u32 u32Width, u32 u32Height, u32 u32FrameRate, u32 u32CbrBitrateMb,
                      u32 u32TsPacketSize, u32 u32RecordTime, u8 u8VencType, u8* pu8FileName)
{
    const ControlLock lock(_controlMutex);
    _u32RecordTime = u32RecordTime;
    u32 u32Handle = 0;
    if (SCREENRECORD_Init() == 0) {
        SR_LOGE("SCREENRECORD_Init Fail\n");
        return -1;
    }
    if (SCREENRECORD_Open(&u32Handle, pu8FileName) == 0) {
        SR_LOGE("SCREENRECORD_Open Fail\n");
        return -1;
    }
    if (SCREENRECORD_SetAudio(&u32Handle, _au8ScreenSource, nullptr, nullptr) == 0) {
        SR_LOGE("SCREENRECORD_SetAudio Fail\n");
        return -1;
    }
    u8 au8VencName[] = {u8VencType, 0};
    if (SCREENRECORD_SetVideo(&u32Handle, _au8ScreenSource, au8VencName, &u32Width, &u32Height,
                              &u32FrameRate) == 0) {
        SR_LOGE("SCREENRECORD_SetVideo Fail\n");
        return -1;
    }
    if (SCREENRECORD_SetTsMux(&u32Handle, &u32TsPacketSize, &u32CbrBitrateMb) == 0) {
        SR_LOGE("SCREENRECORD_SetTsMux Fail\n");
        return -1;
    }
    if (SCREENRECORD_Start(&u32Handle) == 0) {
        SR_LOGE("SCREENRECORD_Start Fail\n");
        return -1;
    }
    return 0;
}

s32 stopScreenRecord(void)
{
    const ControlLock lock(_controlMutex);
    u32 u32Handle = 0;
    if (SCREENRECORD_Stop(&u32Handle) == 0) {
        SR_LOGE("SCREENRECORD_Stop Fail\n");
        return -1;
    }
    if (SCREENRECORD_Close(&u32Handle) == 0) {
        SR_LOGE("SCREENRECORD_Close Fail\n");
        return -1;
    }
    _u32RecordTime = 0;
    return 0;
}
