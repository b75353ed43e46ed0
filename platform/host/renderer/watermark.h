#pragma once

#include "renderer/blend_plane.h"

#include <memory>
#include <srglworker/SrGlWorker.h>

namespace zu3host {

/**
 * A watermark as it is drawn: luma and chroma prepared for its place in the picture. Never changes.
 */
class Watermark {
public:
    /** Whether there is nothing to show, which is no fault. */
    static bool shows_nothing(const android::WatermarkParams& params);
    /**
     * Reads the picture; it is not needed any more afterwards. Throws std::bad_alloc.
     * @return null when the parameters are no picture within their memory, which is logged
     */
    static std::shared_ptr<const Watermark> from(const android::WatermarkParams& params);

    void draw(const TargetPlane& luma, const TargetPlane& chroma) const;

private:
    explicit Watermark(const android::WatermarkParams& params);
    void convert_luma(const android::WatermarkParams& params);
    void convert_chroma(const android::WatermarkParams& params);

    BlendPlane luma_;
    BlendPlane chroma_;
};

} // namespace zu3host
