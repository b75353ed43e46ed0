#pragma once

#include "encoder/content_watch.h"
#include "encoder/encoder_settings.h"

#include <atomic>
#include <cstdarg>
#include <x264.h>

namespace zu3host {

/**
 * Receives the messages of one x264 encoder. The first few warnings and errors go to the host log.
 * Statistics of a picture are available from a message only.
 */
class X264Log {
public:
    /** x264's log callback, on any of its threads; `self` is the X264Log. */
    [[gnu::format(printf, 3, 0)]] static void write(void* self, int level, const char* format,
                                                    va_list arguments);
    /** Of the last encoded picture; all 0 without a message. On the encoding thread. */
    MacroblockCounts counts() const { return counts_; }
    /** The mean quantizer of that picture; 51, the coarsest, without a message. */
    double quantizer() const { return quantizer_; }

private:
    void note_picture(const char* line);

    std::atomic<unsigned> written_{0};
    // x264 reports both on the encoding thread
    MacroblockCounts counts_;
    double quantizer_ = 51;
};

/**
 * Pictures from key frame to key frame. With our settings x264 itself has a longer distance, and
 * the encoder requests each key frame.
 */
uint32_t key_frame_distance(const EncoderSettings& settings);

/** Whether x264 uses our settings, which follow the content, instead of a preset. */
bool settings_follow_content();

/**
 * x264's parameters for these settings and this content: one access unit per picture without delay,
 * a delimiter before every access unit, SPS and PPS before every IDR. `log` must outlive the
 * encoder that is opened with them.
 *
 * The environment overrides them for measurements: ZU3_X264_PRESET (a preset's name; default: our
 * settings for screens), ZU3_X264_THREADS (1 to 16) and ZU3_X264_KEYINT (pictures from key frame to
 * key frame).
 */
x264_param_t x264_parameters_of(const EncoderSettings& settings, Content content, X264Log& log);

/**
 * Switches off settings that the content, or a picture in which almost nothing changed, does not
 * use, for x264_encoder_reconfig. x264 is opened with them, so that the stream's parameter sets are
 * the same for every content.
 */
void leave_out_unused(x264_param_t& parameters, Content content, bool changes_little);

/**
 * Sets only the rate control, in parameters with a frame rate; also for x264_encoder_reconfig if
 * `as_needed` did not change.
 */
void set_rate(x264_param_t& parameters, EncoderRate rate);

} // namespace zu3host
