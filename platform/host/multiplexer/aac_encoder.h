#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace zu3host {

/** of each channel */
inline constexpr size_t aac_frame_samples = 1024;

/**
 * AAC-LC, 48 kHz stereo, 128 kbit/s, each frame behind an ADTS header (ISO/IEC 13818-7). Not
 * thread-safe.
 */
class AacEncoder {
public:
    /**
     * Samples by which what a decoder gives is late against what went in; measured on the library.
     */
    static constexpr int64_t delay_samples = 1600;

    /** @return null, with a log line, when the library refuses */
    static std::unique_ptr<AacEncoder> open();
    AacEncoder(const AacEncoder&) = delete;
    AacEncoder& operator=(const AacEncoder&) = delete;
    ~AacEncoder();

    /**
     * @param pcm one frame, interleaved
     * @return bytes written to `out`; 0 = the library failed
     */
    size_t encode(std::span<int16_t, aac_frame_samples * 2> pcm, std::span<uint8_t> out);

private:
    struct Library;
    explicit AacEncoder(std::unique_ptr<Library> library);
    std::unique_ptr<Library> library_;
};

} // namespace zu3host
