#pragma once

#include "command_line.h"

namespace client {

/**
 * Draws the picture into the stream, or replaces the one that is drawn; after video_capenc_open. An image of
 * "" draws none any more. Throws Failure.
 */
void set_watermark(const WatermarkOptions& options);

} // namespace client
