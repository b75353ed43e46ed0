#include <cstring>

#include <screenrecord/screenrecord.h>
#include <zu3/fs.h>

#include "recording/name_copy.h"
#include "table/control_lock.h"
#include "table/recording_table.h"

u32 SCREENRECORD_Open(u32* pu32Handle, u8* pu8DstName)
{
    const LogAs as(__func__);
    const ControlLock lock(_controlMutex);
    if (!_SCREENRECORD_CheckIdleSlot(pu32Handle))
        return 0;
    if (pu8DstName == nullptr) {
        SR_LOGE("Error: invalid destination file name\n");
        return 0;
    }

    SCREENRECORD_SlotCtrl_s& stSlot = _astSlotCtrl[*pu32Handle];
    stSlot.u32SlotId = *pu32Handle;
    for (u32 u32Module = 0; u32Module < E_SCREENRECORD_MODULE_MAX; u32Module++)
        _SCREENRECORD_ResetTask(&stSlot.astTaskCtrl[u32Module],
                                static_cast<SCREENRECORD_ZuModule_e>(u32Module));
    _SCREENRECORD_ClearSrcInfo(&stSlot.stSrcInfo);

    stSlot.stSrcInfo.pu8DstName = _SCREENRECORD_CopyName(pu8DstName);
    if (stSlot.stSrcInfo.pu8DstName == nullptr)
        return 0;
    if (strcmp(stSlot.stSrcInfo.pu8DstName, "wifi") == 0) {
        SR_LOGE("no support!!\n");
        SCREENRECORD_Close(pu32Handle);
        return 0;
    }
    const u32 u32File = ZU_FS_Fopen(stSlot.stSrcInfo.pu8DstName, "wb");
    stSlot.astTaskCtrl[E_SCREENRECORD_MODULE_TSMUX].u32OutFile = u32File;
    if (u32File == 0) {
        SR_LOGE("Error: failed to ZU_FS_Fopen(%s) for output TS stream\n",
                reinterpret_cast<const char*>(pu8DstName));
        SCREENRECORD_Close(pu32Handle);
        return 0;
    }
    return 1;
}
