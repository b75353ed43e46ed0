#pragma once

#include "capture/picture_source.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <zu3/cap.h>

namespace zu3host {

/** Destination and format of a single capture. */
struct StillTarget {
    uint8_t* memory;
    /** bytes that may be written */
    size_t capacity;
    /** ZU_CAP_Format_e */
    uint32_t format;
    /** exact */
    PictureSize size;
    /** bytes per line of the one-plane formats; NV12 lines have `width` bytes */
    uint32_t pitch;
    /** keeps `memory`: a display may let the picture wait */
    std::shared_ptr<const void> held;
};

/**
 * The target that a single capture names, checked before anything is captured; a pitch of 0 becomes
 * the format's own. Nullopt, with a log line, for an address outside of the device's memory, an
 * unknown format, sizes out of range, and memory too small for `height` lines of the pitch.
 */
std::optional<StillTarget> still_target(const ZU_CAP_Output_t& output);

/**
 * Scales an image into the target, letterboxed if the aspect ratio differs. NV12 is `width` x
 * `height` luma bytes followed directly by chroma lines of `width` bytes: with an odd width the
 * last sample's Cr is left out, with an odd height the last chroma line is written as far as it
 * fits.
 */
void write_still(const BgraImage& image, const StillTarget& target);

} // namespace zu3host
