/**
 * The screen that recordings capture, beside the contract. Look the functions up by name (dlsym):
 * another platform has none.
 *
 * ZU3_DISPLAY chooses the source: "x11", "wayland" (the compositor copies), "portal" (the desktop
 * portal asks the user) or "testcard". If it is not set, a Wayland session that answers at
 * WAYLAND_DISPLAY is captured, by copy if its compositor offers that, otherwise through the portal;
 * without such a session, the X11 screen.
 */
#ifndef ZU3_HOST_SCREEN_H
#define ZU3_HOST_SCREEN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Sources of a screen's pictures. */
enum {
    ZU3_HOST_SCREEN_UNKNOWN = 0,
    ZU3_HOST_SCREEN_X11 = 1,
    ZU3_HOST_SCREEN_WAYLAND = 2,
    ZU3_HOST_SCREEN_PORTAL = 3,
    ZU3_HOST_SCREEN_TESTCARD = 4
};

/** The captured screen; its strings are valid until the receiver returns. */
typedef struct {
    /** ZU3_HOST_SCREEN_*; UNKNOWN if ZU3_DISPLAY names no source */
    uint32_t source;
    /**
     * pixels; of the whole screen if it lacks the chosen region; 0 if it cannot be opened, and for
     * X11 and the test card, which are not opened
     */
    uint32_t width;
    uint32_t height;
    /** pictures per second times 1000; 0 = unknown */
    uint32_t refresh_mhz;
    /** for messages, such as "the Wayland output HEADLESS-1", with the region that it lacks */
    const char* name;
    /** why it cannot be captured, as the end of a sentence; "" if it can */
    const char* problem;
} zu3_host_screen_t;

/** Receives the screen; `user` is the argument of zu3_host_screen(). */
typedef void (*zu3_host_screen_receiver_t)(const zu3_host_screen_t* screen, void* user);

/**
 * Opens the screen, unless it is X11's or the test card, and calls `receiver` once, on this thread.
 * The portal may ask the user. The next capture of the process gets the opened screen. Any thread.
 *
 * @return 0 if it can be captured; X11 and the test card are not tried; -1 otherwise
 */
int zu3_host_screen(zu3_host_screen_receiver_t receiver, void* user);

/** An output of the Wayland session; its strings are valid until the receiver returns. */
typedef struct {
    /** such as "DP-1" */
    const char* name;
    /** such as maker and model; may be "" */
    const char* description;
    /** physical pixels, after rotation */
    uint32_t width;
    uint32_t height;
    /** physical pixels per logical pixel, times 1000 */
    uint32_t scale_thousandths;
    /** counterclockwise: 0, 90, 180 or 270 */
    uint32_t degrees;
    /** 1 = mirrored */
    uint32_t mirrored;
    /** pictures per second times 1000; 0 = unknown */
    uint32_t refresh_mhz;
    /** 1 = recordings show it */
    uint32_t recorded;
} zu3_host_output_t;

/** Receives one output; `user` is the argument of zu3_host_outputs(). */
typedef void (*zu3_host_output_receiver_t)(const zu3_host_output_t* output, void* user);

/**
 * Calls `receiver` for each output of the Wayland session, on this thread. Waits up to 3 s for the
 * compositor. Any thread.
 *
 * @return the number of outputs; -1 if no compositor answers or memory is short
 */
int zu3_host_outputs(zu3_host_output_receiver_t receiver, void* user);

/** How a finding limits recordings. */
enum { ZU3_HOST_FINDING_GOOD = 0, ZU3_HOST_FINDING_LIMITED = 1, ZU3_HOST_FINDING_MISSING = 2 };

/** Receives one finding: ZU3_HOST_FINDING_* and a whole sentence, valid until it returns. */
typedef void (*zu3_host_finding_receiver_t)(uint32_t kind, const char* sentence, void* user);

/**
 * Reports the source in use with the reason, and then its requirements in order, up to the first
 * missing one. X11 and the test card have none here. Shows no dialog. Waits up to 3 s each for
 * compositor and portal. Any thread.
 *
 * @return ZU3_HOST_SCREEN_*; UNKNOWN if ZU3_DISPLAY names no source or memory is short
 */
uint32_t zu3_host_examine_screen(zu3_host_finding_receiver_t receiver, void* user);

#ifdef __cplusplus
}
#endif

#endif
