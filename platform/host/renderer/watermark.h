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
 * The overlay of one plane, prepared so that drawing needs one multiplication per byte: scales each
 * byte of the target down by the opacity, and adds the premultiplied logo.
 */
class BlendPlane {
public:
    /** keeps the target unchanged */
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
    /** Draws the part inside the target; bytes of alpha 0 stay unchanged. */
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
 * A prepared watermark: luma and chroma for its place in the picture. Immutable.
 */
class Watermark {
public:
    /** Whether the watermark is invisible, which is not an error. */
    static bool shows_nothing(const android::WatermarkParams& params);
    /**
     * Copies the picture. Throws std::bad_alloc.
     * @return null, with a log line, if the parameters do not describe a picture within their
     * memory
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
