/** Opening the sources of a recording. Each releases what it opened itself when it fails half-way. */
#ifndef SCREENRECORD_MODULES_SOURCES_H
#define SCREENRECORD_MODULES_SOURCES_H

#include "table/recording_table.h"

/** What a client's source name stands for. */
enum SCREENRECORD_SrcKind_e {
    E_SCREENRECORD_SRC_CAPTURE, /**< "cap": the screen, or what the device plays */
    E_SCREENRECORD_SRC_TS_FILE, /**< at least five characters that end in ".ts": no codec name is looked at */
    E_SCREENRECORD_SRC_FILE,
};
SCREENRECORD_SrcKind_e _SCREENRECORD_SrcKindOf(const char* pName);

/** Opens the slot's encoder for transport-stream recording. ZU_OK, ZU_INVALID_ARGUMENT for NULL, else
 * ZU_FAILURE. */
u32 _SCREENRECORD_OpenVenc(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask);

/**
 * Opens the capture at the slot's size, connects it to the display and registers the captured-frame handler.
 * @return ZU_OK, ZU_INVALID_ARGUMENT for a NULL task or a picture whose size does not fit, else the failing
 * call's code
 */
u32 _SCREENRECORD_OpenVcap(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask);

/** Opens the audio capture; `bRegisterCallback` 1 = with the event callback. ZU_OK or ZU_FAILURE. */
u32 _SCREENRECORD_OpenAcap(SCREENRECORD_TaskCtrl_s* pstTask, u8 bRegisterCallback);

/** Opens the file that a source reader reads. ZU_OK, ZU_INVALID_ARGUMENT for no reader, ZU_FAILURE. */
u32 _SCREENRECORD_OpenSrcReader(SCREENRECORD_SlotCtrl_s* pstSlot, SCREENRECORD_TaskCtrl_s* pstTask);

#endif
