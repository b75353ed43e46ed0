#pragma once

#include "encoder/encoder_settings.h"

#include <atomic>
#include <cstdarg>
#include <x264.h>

namespace zu3host {

/** Where one x264 encoder's own messages go: to the host log, only so many of them. Thread-safe. */
class X264Log {
public:
    /** x264's log callback; `self` is the X264Log. */
    [[gnu::format(printf, 3, 0)]] static void write(void* self, int level, const char* format,
                                                    va_list arguments);

private:
    std::atomic<unsigned> written_{0};
};

/**
 * x264's parameters for these settings: no picture is held back, every IDR is preceded by SPS and
 * PPS and every access unit by a delimiter. `log` must live as long as the encoder that is opened
 * with them.
 *
 * The environment overrides for measurements: ZU3_X264_PRESET (a preset's name, default settings of
 * our own for screens), ZU3_X264_THREADS (1 to 16) and ZU3_X264_KEYINT (pictures from key frame to
 * key frame).
 */
x264_param_t x264_parameters_of(const EncoderSettings& settings, X264Log& log);

/**
 * Sets the rate control alone, of parameters that have their frame rate; also for
 * x264_encoder_reconfig if `as_needed` did not change.
 */
void set_rate(x264_param_t& parameters, EncoderRate rate);

} // namespace zu3host
