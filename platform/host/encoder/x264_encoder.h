#pragma once

#include "encoder/content_watch.h"
#include "encoder/key_quantizer.h"
#include "encoder/refinement.h"
#include "encoder/repeated_pictures.h"
#include "encoder/unchanged_macroblocks.h"
#include "encoder/x264_parameters.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace zu3host {

/**
 * One encoded access unit, ISO/IEC 14496-10 Annex B; the bytes are the encoder's and live until its
 * next call.
 */
struct AccessUnit {
    uint8_t* data;
    uint32_t size;
    /** an IDR picture */
    bool key;
};

/**
 * An open x264 encoder: one access unit per picture, without delay. At constant quality its
 * settings follow the content, starting at a key frame. One thread at a time.
 */
class X264Encoder {
public:
    /** Opens one; null, with a log line, if x264 refuses. */
    static std::unique_ptr<X264Encoder> open(const EncoderSettings& settings);

    /**
     * Encodes the NV12 picture at `picture`, which is no longer needed when this returns. x264 does
     * not search unchanged parts for changes. It refines a picture without changes; once nothing is
     * left to refine, or while that can wait, the access unit is written without x264.
     */
    std::optional<AccessUnit> encode(uint8_t* picture, bool as_key, ChangedRectangles changed);
    /** Whether an unchanged picture that need not be a key frame is written without x264. */
    bool would_repeat() const;
    /**
     * Does not put off the next key frame. Call it if the last unit belongs to a live stream, which
     * readers join at key frames, or is missing in its stream, which it damages up to the next one.
     */
    void keep_distance_of_key_frames() { keeps_distance_ = true; }
    /**
     * Sets the rate from the next picture on, limited by the process's ceiling. x264 cannot change
     * between a rate and "as needed", so a new encoder continues then, with an IDR picture. If x264
     * refuses, the old rate stays, and a log line says so.
     */
    void set_rate(EncoderRate rate) { settings_.rate = rate; }

private:
    struct Closer {
        void operator()(x264_t* encoder) const { x264_encoder_close(encoder); }
    };
    using Handle = std::unique_ptr<x264_t, Closer>;

    explicit X264Encoder(const EncoderSettings& settings)
        : settings_(settings), unchanged_(settings.layout),
          watch_(settings.frame_rate, settings.layout), refinement_(settings.frame_rate)
    {
    }
    void follow_rate();
    bool follow_content(const uint8_t* picture, ChangedRectangles changed, bool repeats);
    bool key_due() const { return pictures_since_key_ >= pictures_between_keys_; }
    bool reopen(EncoderRate rate);
    bool reconfigure(EncoderRate rate);
    void follow_changes(bool little);
    std::optional<AccessUnit> encode_by_x264(uint8_t* picture, bool as_key,
                                             ChangedRectangles changed);
    bool is_settled() const;
    bool may_repeat() const;
    AccessUnit repeat();
    bool is_at_ceiling() const;
    void note(const AccessUnit& unit, bool unchanged);

    /**
     * In a recording, key frames of a still picture are put off to this multiple of their distance,
     * or to the next change. A player that seeks to a moment before that decodes only repetitions.
     */
    static constexpr uint32_t distances_while_still = 5;

    // with the requested rate
    EncoderSettings settings_;
    // the rate of encoder_, which the process's ceiling may lower
    EncoderRate applied_{};
    // x264's, of constant quality
    double rate_factor_ = 0;
    // before encoder_: x264 may still log while it is closed
    X264Log log_;
    // null: memory ran out for another one; the next picture tries again
    Handle encoder_;
    int64_t next_pts_ = 0;
    // null: every picture is encoded
    std::unique_ptr<RepeatedPictures> repetitions_;
    uint32_t pictures_between_keys_ = 0;
    uint32_t pictures_since_key_ = 0;
    bool keeps_distance_ = false;
    // bits spent ahead of the rate, according to x264's rate control
    uint64_t bits_ahead_ = 0;
    UnchangedMacroblocks unchanged_;
    // almost nothing changed in the last picture, for which settings that it does not need are off
    bool changes_little_ = false;
    ContentWatch watch_;
    Content content_ = Content::screens;
    Refinement refinement_;
    KeyQuantizer key_quantizer_;
    // per macroblock, the quantizer offset of a key frame
    std::vector<float> finer_;
};

} // namespace zu3host
