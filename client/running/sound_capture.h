#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "files/wav_file.h"
#include <screenrecord/screenrecord.h>

namespace client {

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

} // namespace client
