#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "process/signals.h"
#include <screenrecord/screenrecord.h>

namespace client {

/**
 * Throws Failure (usage) if `name`, a value of --sound or ZU3_SOUND, names a source that the sound
 * server lacks. Asks the server, for up to 3 s, only about names, not about words such as desktop
 * and microphone. Without a server any name passes, since the server may start later.
 */
void check_sound_name(const std::string& name);

/** check_sound_name() of ZU3_SOUND, which --sound sets. */
void check_chosen_sound();

/** Samples as in a WAV file: little-endian, channels interleaved. */
struct PcmFormat {
    uint32_t channels = 2;
    /** per second and channel */
    uint32_t sample_rate = 48000;
    uint32_t bits = 16;

    constexpr uint32_t frame_bytes() const { return channels * bits / 8; }
    constexpr uint64_t bytes_per_second() const { return uint64_t{sample_rate} * frame_bytes(); }
};

inline constexpr size_t wav_header_bytes = 44;

/**
 * The header of a WAV file (RIFF, PCM) with `data_bytes` of samples. Its size fields have 32 bits:
 * beyond that they contain the greatest value, which players read as "up to the end of the file".
 */
std::array<uint8_t, wav_header_bytes> wav_header(const PcmFormat& format, uint64_t data_bytes);

/** The library's PCM capture, from its opening to its close. */
class SoundCapture {
public:
    /** Opens and starts it; throws Failure. */
    SoundCapture();
    SoundCapture(const SoundCapture&) = delete;
    SoundCapture& operator=(const SoundCapture&) = delete;
    ~SoundCapture();

    PcmFormat format() const;
    uint64_t buffer_bytes() const { return buffer_.size(); }

    /**
     * `bytes` of samples (at most a buffer) if that many are waiting, otherwise none. They stay
     * valid until the next read. Throws Failure.
     */
    std::span<const uint8_t> read(uint64_t bytes);

private:
    AudioCap_Info info_ = {};
    std::vector<uint8_t> buffer_;
};

/** Captures sound in pieces, each with the time when it was heard. */
class TimedSound {
public:
    /** Calls `take` with the time and the samples of each waiting piece. Throws Failure. */
    void read(const std::function<void(uint64_t time_us, std::span<const int16_t>)>& take);

private:
    uint64_t time_of(uint64_t bytes);

    SoundCapture sound_;
    uint64_t start_us_ = now_us();
    uint64_t read_ = 0;
};

} // namespace client
