#pragma once

#include <memory>

#include "command_line/options.h"
#include "files/png_file.h"
#include "running/attended_work.h"

namespace client {

/**
 * A requested watermark. A separate thread reads its picture, which may come from a pipe without a
 * writer.
 */
class WatermarkChange {
public:
    /** Starts to read the picture, if there is one. Throws Failure. */
    explicit WatermarkChange(const WatermarkOptions& options);

    /** The work of reading, to wait for. */
    const AttendedWork& reading() const { return reading_; }
    /**
     * Draws the picture into the stream, or replaces the current one; an image of "" removes it.
     * Call it after the picture is read and after video_capenc_open. Throws Failure.
     */
    void apply();

private:
    WatermarkOptions options_;
    // shared with the reading thread
    std::shared_ptr<RgbaPicture> picture_;
    AttendedWork reading_;
};

} // namespace client
