#pragma once

#include "capture/patient_source.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zu3host {

/**
 * The functions of the host layer that a screen module calls. It links none of its libraries, so it
 * must neither use HOST_LOG and at_border() nor count serials by itself. Any thread.
 */
struct ScreenHost {
    /** Writes one sentence into the log. @param priority android_LogPriority */
    void (*log)(int priority, const char* sentence);
    /** Sets the flag of the statistics: the display went away. */
    void (*note_lost_display)();
    /** The serial for a new image. */
    uint64_t (*next_image_serial)();
};

/** Why a screen cannot be opened. */
enum class ScreenFailure : uint8_t {
    none,
    /** no compositor, or no bus, answers at the address that the environment gives */
    no_session,
    /** the session answers, but it does not offer this way of capturing */
    not_offered,
    /** anything the user has to repair: refused, out of memory, an unknown pixel format */
    failed,
};

/** The result of opening a screen. */
struct ScreenOpening {
    /** null on failure */
    std::unique_ptr<WaitingSource> source{};
    ScreenFailure failure = ScreenFailure::none;
    /** the end of a sentence, without full stop: why it cannot be opened, and the way out */
    std::string reason{};
    /** for messages, such as "the Wayland output HEADLESS-1" */
    std::string name{};
    /** pictures per second of the screen, times 1000; 0 = unknown */
    uint32_t refresh_mhz = 0;
};

/** An output of the session. */
struct ScreenOutput {
    std::string name;
    std::string description;
    /** real pixels, as people see it: rotated */
    PictureSize size;
    double scale;
    /** counterclockwise: 0, 90, 180 or 270 */
    uint32_t degrees;
    bool mirrored;
    /** pictures per second times 1000; 0 = unknown */
    uint32_t refresh_mhz;
    /** recordings show this one */
    bool recorded;
};

/** A requirement of a source, and whether it is met. */
struct ScreenFinding {
    enum class Kind : uint8_t { good, limited, missing } kind;
    /** complete, with the way out if it is limited or missing */
    std::string sentence;
};

/**
 * The functions of a module libzu3_NAME.so, one way to capture a screen. They may wait without
 * limit unless they say otherwise, and may throw std::bad_alloc.
 */
struct ScreenModule {
    /** open() may wait for so long: for a user who answers a dialog, for example */
    std::chrono::milliseconds opening_limit;
    /** Opens the screen that recordings capture. On a thread that runs this only. */
    ScreenOpening (*open)(const ScreenHost& host);
    /**
     * The outputs of the session; empty if it does not answer within 3 s, or if this source does
     * not choose outputs.
     */
    std::vector<ScreenOutput> (*list_outputs)();
    /**
     * Adds the requirements of open(), in its order, up to the first that is not met. Does not ask
     * the user. Waits up to 3 s for an answer.
     * @return how open() would fail, as far as this can tell
     */
    ScreenFailure (*examine)(std::vector<ScreenFinding>& findings);
};

/** The one function that each of these modules exports. */
inline constexpr char screen_module_entry[] = "zu3_screen_module";
using ScreenModuleEntry = const ScreenModule* (*)();

} // namespace zu3host
