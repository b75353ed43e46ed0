#pragma once

#include "encoder/content_watch.h"
#include "encoder/encoder_settings.h"

#include <atomic>
#include <cstdarg>
#include <x264.h>

namespace zu3host {

/**
 * Where one x264 encoder's own messages go: warnings and errors to the host log, only so many of
 * them. What x264 did with a picture it tells in a message only.
 */
class X264Log {
public:
    /** x264's log callback, on any of its threads; `self` is the X264Log. */
    [[gnu::format(printf, 3, 0)]] static void write(void* self, int level, const char* format,
                                                    va_list arguments);
    /** Of the picture encoded last; all 0 without a message. On the thread that encodes. */
    MacroblockCounts counts() const { return counts_; }
    /** The mean quantizer of that picture; 51, the coarsest, without a message. */
    double quantizer() const { return quantizer_; }

private:
    void note_picture(const char* line);

    std::atomic<unsigned> written_{0};
    // x264 tells both on the thread that encodes
    MacroblockCounts counts_;
    double quantizer_ = 51;
};

/**
 * Pictures from key frame to key frame. x264's own settings have more of them if they are ours: it
 * makes a key frame that it is asked for.
 */
uint32_t key_frame_distance(const EncoderSettings& settings);

/** Whether x264's settings are ours, and so follow the content. */
bool settings_follow_content();

/**
 * x264's parameters for these settings and this content: no picture is held back, every IDR is preceded by SPS and
 * PPS and every access unit by a delimiter. `log` must live as long as the encoder that is opened
 * with them.
 *
 * The environment overrides for measurements: ZU3_X264_PRESET (a preset's name, default settings of
 * our own for screens), ZU3_X264_THREADS (1 to 16) and ZU3_X264_KEYINT (pictures from key frame to
 * key frame).
 */
x264_param_t x264_parameters_of(const EncoderSettings& settings, Content content, X264Log& log);

/**
 * What x264 is opened with is in the stream's parameter sets, which are the same for every content.
 * This takes out what the content has no use for, for x264_encoder_reconfig.
 */
void leave_out_unused(x264_param_t& parameters, Content content);

/**
 * Sets the rate control alone, of parameters that have their frame rate; also for
 * x264_encoder_reconfig if `as_needed` did not change.
 */
void set_rate(x264_param_t& parameters, EncoderRate rate);

} // namespace zu3host
