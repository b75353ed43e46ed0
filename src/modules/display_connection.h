/**
 * The one connection of a capture to the display, and the one registration of the captured-frame
 * handler.
 */
#ifndef SCREENRECORD_MODULES_DISPLAY_CONNECTION_H
#define SCREENRECORD_MODULES_DISPLAY_CONNECTION_H

#include <zu3/cap.h>

/** The display that a capture is connected to, 0 = none. Control calls only. */
extern u32 _u32DispHandle;

/**
 * The captured-frame handler: the capture's callback, once per picture, on the capture's own
 * thread. The layer above the modules defines it (capture_encode/captured_frame.cpp); the
 * registration hands it to the capture. It decides whether the picture is encoded and hands it to
 * slot 0's encoder with the time at which it arrived. Lock-free.
 * @return 1; 0 when the capture did not accept its buffer back (the picture is not encoded then)
 */
u32 _SCREENRECORD_Callback(s32 s32Handle, u32 u32Event, ZU_CAP_FrameInfo_t* pstFrame,
                           void* pUserData);

/**
 * Connects a capture to the main display; a display that is connected already is left alone. ZU_OK
 * or a code.
 */
u32 _SCREENRECORD_ConnectDisp(s32 s32Handle);
/** Registers the captured-frame handler with a capture. 1 on success, 0 on failure. */
u32 _SCREENRECORD_RegisterCallback(s32 s32Handle);
/**
 * Forgets what a capture has of the two, when its record is reset while it is open: it can be
 * neither disconnected nor removed any more, and the next capture must get both.
 */
void _SCREENRECORD_ForgetCapture(u32 u32Handle);
/**
 * Notes that another capture is opened over this one (0 = none) in its record. The display counts
 * as connected until that record's capture is stopped.
 */
void _SCREENRECORD_OrphanCapture(u32 u32Handle);
/**
 * Disconnects a capture that stops. A failure leaves the display noted, unless its capture was
 * orphaned. ZU_OK, also when none is connected, or a code.
 */
u32 _SCREENRECORD_DisconnectDisp(u32 u32Handle);
/**
 * Removes the registration. 1 on success and when nothing is registered, 0 on failure (it stays as
 * it was).
 */
u32 _SCREENRECORD_UnRegisterCallback(s32 s32Handle);

#endif
