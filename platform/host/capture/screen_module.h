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
    /** no compositor, or no bus, answers at the address in the environment */
    no_session,
    /** the session answers, but does not support this source */
    not_offered,
    /** a refusal, lack of memory, an unknown pixel format or another fault */
    failed,
};

/** The result of opening a screen. */
struct ScreenOpening {
    /** null on failure */
    std::unique_ptr<WaitingSource> source{};
    ScreenFailure failure = ScreenFailure::none;
    /** the end of a sentence, without full stop: why it cannot be opened, and the remedy */
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
    /** physical pixels, after rotation */
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
    /** a complete sentence, with the remedy if it is limited or missing */
    std::string sentence;
};

/**
 * The functions of a module libzu3_NAME.so, one way to capture a screen. They may wait without
 * limit unless they say otherwise, and may throw std::bad_alloc.
 */
struct ScreenModule {
    /** longest wait of open(), which may show the user a dialog */
    std::chrono::milliseconds opening_limit;
    /**
     * Opens the screen that recordings capture. Call it on a separate thread.
     * @param monitor one of list_outputs(), or "primary"; empty = the source's choice
     */
    ScreenOpening (*open)(const ScreenHost& host, const std::string& monitor);
    /**
     * The outputs of the session; empty if it does not answer within 3 s, or if this source does
     * not choose outputs.
     */
    std::vector<ScreenOutput> (*list_outputs)(const std::string& monitor);
    /**
     * Adds the requirements of open(), in order, up to the first that is not met. Shows no dialog.
     * Waits up to 3 s for an answer.
     * @return the failure of open(), as far as it can be predicted
     */
    ScreenFailure (*examine)(const std::string& monitor, std::vector<ScreenFinding>& findings);
};

/** The only function that such a module exports. */
inline constexpr char screen_module_entry[] = "zu3_screen_module";
using ScreenModuleEntry = const ScreenModule* (*)();

} // namespace zu3host
