#pragma once

#include "capture/picture_pool.h"
#include "encoder/open_encoders.h"

#include <cstdint>
#include <memory>
#include <stop_token>

namespace zu3host {

/** What one start of a capture asked for. */
struct CaptureRun {
    std::shared_ptr<PicturePool> pool;
    /** of the pictures, rounded */
    PictureSize out;
    /** what of them is seen */
    PictureSize visible;
    /** pictures per second */
    uint32_t rate;
    std::stop_source stop;
};

} // namespace zu3host
