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
     * @return the raw data block of the previous frame, valid until the next call; empty for the
     *     first frame, and after a failure
     */
    virtual std::span<const uint8_t>
    encode(std::span<const int16_t, aac_frame_samples * 2> pcm) noexcept = 0;
};

/**
 * The functions of the module libzu3_aac.so. Only this module links libavcodec, which depends on
 * eighty libraries, so recordings without sound do not load them.
 */
struct AacModule {
    /** Null, with the reason in `failure`, if libavcodec refuses. */
    std::unique_ptr<AacCodec> (*open)(std::string& failure);
};

/** The module's only exported function. */
inline constexpr char aac_module_entry[] = "zu3_aac_module";
using AacModuleEntry = const AacModule* (*)();

} // namespace zu3host
