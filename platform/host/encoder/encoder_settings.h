#pragma once

#include "base/picture_layout.h"

#include <common/encoder_limits.h>
#include <cstdint>
#include <optional>
#include <zu3/venc.h>

namespace zu3host {

/** The rate control of the stream. */
struct EncoderRate {
    /** constant quality under a ceiling instead of a rate */
    bool as_needed;
    /** the rate or the ceiling, 1000 bit/s, at least 1 */
    int kilobits;
    bool operator==(const EncoderRate&) const = default;

    /**
     * `bitrate` is in units of 1024 bit/s. 0, and more than 240 Mbit/s, which no level up to 5.2
     * allows (ISO/IEC 14496-10 table A-1), leave the choice to the encoder.
     */
    static EncoderRate of(uint32_t bitrate);
};

/**
 * The checked parameters of an encoder: each lies in the range that it handles.
 */
struct EncoderSettings {
    PictureSize size;
    PictureLayout layout;
    /** 1 to common::greatest_frame_rate */
    uint32_t frame_rate;
    EncoderRate rate;
    /** profile_idc 66, 77 or 100; 0 = the encoder's choice */
    uint32_t profile;
    /** ten times level_idc, 101 = level 1b; 0 = the encoder's choice */
    uint32_t level;
    /** pictures may come in the entire inject buffer */
    bool inject;
    /** x264's rate factor if the rate is as needed; 0 = the usual one */
    int quality = 0;
    /** key frames of a still picture may be put off also in a stream that is not multiplexed */
    bool rare_key_frames = false;
};

/** Checks the record; nullopt, with a log line, if the encoder cannot do it. */
std::optional<EncoderSettings> encoder_settings_of(const ZU_VENC_OpenParams_t& params);

/**
 * Moves the requests of zu3_host_quality() or zu3_host_bit_rate(), if the settings have no bit
 * rate, and of zu3_host_rare_key_frames() into the settings of an encoder that opens. The requests
 * are then used up in any case.
 */
void take_requests(EncoderSettings& settings);

} // namespace zu3host
