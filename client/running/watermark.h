#pragma once

#include <memory>

#include "command_line/options.h"
#include "files/png_file.h"
#include "running/attended_work.h"

namespace client {

/**
 * A watermark on its way into the stream. Its picture is read beside the caller, since it may come
 * from a pipe without a writer.
 */
class WatermarkChange {
public:
    /** Starts to read the picture, if there is one. Throws Failure. */
    explicit WatermarkChange(const WatermarkOptions& options);

    /** The reading, to wait for. */
    const AttendedWork& reading() const { return reading_; }
    /**
     * Once the picture is read: draws it into the stream, or replaces the one that is drawn; after
     * video_capenc_open. An image of "" draws none any more. Throws Failure.
     */
    void apply();

private:
    WatermarkOptions options_;
    // the reading's own, too
    std::shared_ptr<RgbaPicture> picture_;
    AttendedWork reading_;
};

} // namespace client
