#include "multiplexer/aac_encoder.h"

#include "base/host_log.h"
#include "utils/private_module.h"

#include <algorithm>
#include <array>

namespace zu3host {
namespace {

constexpr size_t header_bytes = 7;

/** The header of a frame: no checksum, MPEG-4, AAC-LC, 48 kHz, two channels. */
std::array<uint8_t, header_bytes> adts_header(size_t frame_bytes)
{
    constexpr uint8_t low_complexity = 1, rate_48000 = 3, channels = 2;
    return {0xFF, 0xF1, low_complexity << 6 | rate_48000 << 2,
            static_cast<uint8_t>(channels << 6 | frame_bytes >> 11),
            static_cast<uint8_t>(frame_bytes >> 3 & 0xFF),
            // buffer fullness of all ones means a variable rate
            static_cast<uint8_t>((frame_bytes & 7) << 5 | 0x1F), 0xFC};
}

const PrivateModule& aac_module()
{
    static const PrivateModule module(ZU3_AAC_MODULE, aac_module_entry);
    return module;
}

} // namespace

std::unique_ptr<AacEncoder> AacEncoder::open()
{
    std::string failure = aac_module().failure;
    std::unique_ptr<AacCodec> codec;
    if (failure.empty())
        codec = reinterpret_cast<AacModuleEntry>(aac_module().entry)()->open(failure);
    if (codec)
        return std::unique_ptr<AacEncoder>(new AacEncoder(std::move(codec)));
    HOST_LOGE("The AAC encoder cannot be opened (%s); the recording gets no sound.",
              failure.c_str());
    return nullptr;
}

size_t AacEncoder::encode(std::span<const int16_t, aac_frame_samples * 2> pcm,
                          std::span<uint8_t> out)
{
    const std::span<const uint8_t> block = codec_->encode(pcm);
    const size_t bytes = header_bytes + block.size();
    if (block.empty() || bytes > out.size())
        return 0;
    const auto after_header = std::ranges::copy(adts_header(bytes), out.begin()).out;
    std::ranges::copy(block, after_header);
    return bytes;
}

} // namespace zu3host
