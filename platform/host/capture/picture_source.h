#pragma once

#include "encoder/open_encoders.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>

namespace zu3host {

/** A view of four bytes a pixel, blue first; the fourth is undefined. Of its source until the next grab. */
struct BgraImage {
    const uint8_t* pixels;
    uint32_t stride; /**< bytes per line */
    PictureSize size;
    uint64_t serial; /**< images of the process with the same number have the same pixels; never 0 */
};

struct GrabRequest {
    PictureSize wanted;   /**< the size that is best to get; a source with a size of its own keeps it */
    uint32_t number;      /**< of the picture in the schedule; a source may show it */
    bool pointer;         /**< whether the pointer is drawn in */
    std::stop_token stop; /**< once requested, a grab that waits gives up soon */
    std::chrono::milliseconds patience; /**< a grab that waits for longer gives up */
};

/** Where pictures come from: a display, or what stands in for one. One thread at a time. */
class PictureSource {
public:
    virtual ~PictureSource() = default;
    /** What is on the display now; nothing when it cannot be had (in time), the reason of which is logged
     * once. */
    virtual std::optional<BgraImage> grab(const GrabRequest& request) = 0;
};

/** The next serial of an image. */
uint64_t next_image_serial();

/** The source that ZU3_DISPLAY names, X11 where it is not set. Null with a log line when there is none. */
std::unique_ptr<PictureSource> open_picture_source();

} // namespace zu3host
