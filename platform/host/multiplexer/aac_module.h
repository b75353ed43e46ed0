#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace zu3host {

/** of each channel */
inline constexpr size_t aac_frame_samples = 1024;

/** An encoder of AAC-LC (ISO/IEC 14496-3), 48 kHz stereo, 128 kbit/s. Not thread-safe. */
class AacCodec {
public:
    virtual ~AacCodec() = default;
    /**
     * @param pcm one frame, interleaved
     * @return the raw data block of the frame before this one, until the next call; empty for the
     *     first frame, and after a failure
     */
    virtual std::span<const uint8_t>
    encode(std::span<const int16_t, aac_frame_samples * 2> pcm) noexcept = 0;
};

/**
 * What the module libzu3_aac.so offers, the only thing of the host layer that links libavcodec.
 * That brings eighty libraries along, which recordings without sound do without.
 */
struct AacModule {
    /** Null, with the reason in `failure`, if libavcodec refuses. */
    std::unique_ptr<AacCodec> (*open)(std::string& failure);
};

/** The module's one exported function. */
inline constexpr char aac_module_entry[] = "zu3_aac_module";
using AacModuleEntry = const AacModule* (*)();

} // namespace zu3host
