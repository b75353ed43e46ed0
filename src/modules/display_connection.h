/**
 * The connection of a capture to the display, and the registration of the captured-frame handler.
 * The process has one of each.
 */
#ifndef SCREENRECORD_MODULES_DISPLAY_CONNECTION_H
#define SCREENRECORD_MODULES_DISPLAY_CONNECTION_H

#include <zu3/cap.h>

/** The display that a capture is connected to, 0 = none. Control calls only. */
extern u32 _u32DispHandle;

/**
 * The captured-frame handler: the capture's callback, once per picture, on the capture's thread.
 * capture_encode/captured_frame.cpp, in the layer above, defines it. Drops the picture or passes it
 * to slot 0's encoder with its arrival time. Lock-free.
 * @return 1; 0 if the capture refused to get its buffer back (the picture is not encoded then)
 */
u32 _SCREENRECORD_Callback(s32 s32Handle, u32 u32Event, ZU_CAP_FrameInfo_t* pstFrame,
                           void* pUserData);

/**
 * Connects a capture to the main display, unless one is already connected.
 * @return ZU_OK, or the failing call's result
 */
u32 _SCREENRECORD_ConnectDisp(s32 s32Handle);
/** Registers the captured-frame handler with a capture. 1 on success, 0 on failure. */
u32 _SCREENRECORD_RegisterCallback(s32 s32Handle);
/**
 * Drops the connection and the registration of a capture whose record is reset while it is open. It
 * can no longer be disconnected or unregistered; the next capture gets both.
 */
void _SCREENRECORD_ForgetCapture(u32 u32Handle);
/**
 * Notes that another capture is about to replace this one (0 = none) in its record. The display
 * counts as connected until that record's capture stops.
 */
void _SCREENRECORD_OrphanCapture(u32 u32Handle);
/**
 * Disconnects a capture that stops. After a failure the display still counts as connected, unless
 * its capture was orphaned.
 * @return ZU_OK, also if none is connected; otherwise the failing call's result
 */
u32 _SCREENRECORD_DisconnectDisp(u32 u32Handle);
/**
 * Removes the registration. 1 on success and if nothing is registered; 0 on failure, with no
 * change.
 */
u32 _SCREENRECORD_UnRegisterCallback(s32 s32Handle);

#endif
