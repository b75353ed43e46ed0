#pragma once

#include "base/changed_parts.h"
#include "base/picture_layout.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>

namespace zu3host {

/**
 * A view of four bytes a pixel, blue first; the fourth is undefined. Of its source until the next
 * grab.
 */
struct BgraImage {
    const uint8_t* pixels;
    /** bytes per line */
    uint32_t stride;
    PictureSize size;
    /** images of the process with the same number have the same pixels; never 0 */
    uint64_t serial;
    /**
     * Every pixel outside these parts equals that of the earlier image; of the source until its
     * next grab.
     */
    ChangedParts changed{};
};

struct GrabRequest {
    /** the preferred size; a source with a fixed size ignores it */
    PictureSize wanted;
    /** of the picture in the schedule; a source may show it */
    uint32_t number;
    /** whether the pointer is drawn in */
    bool pointer;
    /** once requested, a grab that waits gives up soon */
    std::stop_token stop;
    /** a grab that waits for longer gives up */
    std::chrono::milliseconds patience;
    /** when the picture is due; the clock's start = now */
    std::chrono::steady_clock::time_point due{};
};

/** A display, or a replacement for one. One thread at a time. */
class PictureSource {
public:
    virtual ~PictureSource() = default;
    /**
     * The display's picture now; nullopt if it cannot be read (in time), with the reason logged
     * once.
     */
    virtual std::optional<BgraImage> grab(const GrabRequest& request) = 0;
    /**
     * Whether a grab may begin before the picture is due. It then waits for the last change before
     * that time, at the latest until then. The answer never changes.
     */
    virtual bool awaits_changes() const { return false; }
};

/** A moving picture that needs no display, in any size; test_card.cpp says what it shows. */
std::unique_ptr<PictureSource> open_test_card();

/** The next serial of an image. */
inline uint64_t next_image_serial()
{
    static std::atomic<uint64_t> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

} // namespace zu3host
