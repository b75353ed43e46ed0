// The module libzu3_aac.so: all of the host layer that calls libavcodec, behind one entry.
#include "base/border.h"
#include "multiplexer/aac_module.h"

#include <common/sound_encoder.h>
#include <exception>
#include <vector>

namespace zu3host {
namespace {

static_assert(aac_frame_samples == common::SoundEncoder::packet_samples);

class LibavAac final : public AacCodec {
public:
    std::span<const uint8_t>
    encode(std::span<const int16_t, aac_frame_samples * 2> pcm) noexcept override
    {
        block_.clear();
        try {
            encoder_.put(pcm, [this](const AVPacket& packet) {
                block_.assign(packet.data, packet.data + packet.size);
            });
        } catch (const std::exception&) {
            block_.clear();
        }
        return block_;
    }

private:
    common::SoundEncoder encoder_;
    std::vector<uint8_t> block_;
};

std::unique_ptr<AacCodec> open_codec(std::string& failure)
{
    try {
        return std::make_unique<LibavAac>();
    } catch (const std::exception& error) {
        failure = error.what();
        return nullptr;
    }
}

} // namespace
} // namespace zu3host

extern "C" HOST_EXPORT const zu3host::AacModule* zu3_aac_module()
{
    static constexpr zu3host::AacModule module{zu3host::open_codec};
    return &module;
}
