#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <srglworker/SrGlWorker.h>
#include <vector>

namespace zu3host {

/** A plane of a picture that is drawn into; `bytes` of each line count. */
struct TargetPlane {
    uint8_t* data;
    size_t pitch;
    int64_t bytes;
    int64_t lines;
};

/**
 * What is laid over one plane, prepared so that drawing is one multiplication a byte: each byte of
 * the target is scaled down by the opacity, and the opaque part of the logo, multiplied by it
 * beforehand, is added.
 */
class BlendPlane {
public:
    /** the target stays as it is */
    static constexpr double keep_unit = 16384;
    /** one level of the target */
    static constexpr double add_unit = 256;

    /**
     * Covers `bytes` x `lines` from byte `left` of line `top` on, which may lie outside of the
     * target.
     */
    BlendPlane(int64_t left, int64_t top, int64_t bytes, int64_t lines);

    /** @param alpha 0 to 1; @param colour the logo's value times alpha, in levels */
    void set(int64_t byte, int64_t line, double alpha, double colour);
    /** Draws what lies inside of the target; bytes of alpha 0 stay as they are. */
    void draw(const TargetPlane& target) const;

private:
    struct Line {
        /** bytes of the plane that are not fully transparent */
        int64_t begin, end;
    };

    int64_t left_, top_, bytes_;
    std::vector<Line> lines_;
    std::vector<uint16_t> keep_;
    std::vector<uint16_t> add_;
};

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
