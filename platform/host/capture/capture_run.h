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
    PictureSize out;     /**< of the pictures, rounded */
    PictureSize visible; /**< what of them is seen */
    uint32_t rate;       /**< pictures per second */
    std::stop_source stop;
};

} // namespace zu3host
