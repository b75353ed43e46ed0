#include "encoder/encoder_settings.h"

#include "base/border.h"
#include "base/host_log.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <utility>
#include <zu3_host/quality.h>

namespace zu3host {
namespace {

/** A constant quality, or a bit rate if the factor is 0. */
struct Wish {
    int factor;
    /** the ceiling of a quality, 0 = the usual one, or the bit rate */
    int kilobits;
};

constexpr uint32_t greatest_rate = common::greatest_bit_rate / 1000;
// Below it x264 encodes without loss, in a profile that few players know.
constexpr uint32_t best_lossy_quality = 1;

std::mutex wish_mutex;
// under the mutex
std::optional<Wish> wish;
std::atomic<bool> rare_key_frames{false};

void set_wish(Wish made)
{
    const std::lock_guard lock(wish_mutex);
    wish = made;
}

constexpr uint32_t default_frame_rate = 30;

// Ten times level_idc, and 101 for level 1b.
constexpr std::array known_levels{100u, 101u, 110u, 120u, 130u, 200u, 210u, 220u, 300u,
                                  310u, 320u, 400u, 410u, 420u, 500u, 510u, 520u};
constexpr std::array known_profiles{66u, 77u, 100u};

bool size_is_possible(uint32_t width, uint32_t height)
{
    if (!in_encoder_range(width, height)) {
        HOST_LOGE("The encoder cannot encode %ux%u: sizes go from %ux%u to %ux%u", width, height,
                  min_encoder_size, min_encoder_size, max_encoder_width, max_encoder_height);
        return false;
    }
    if (width % 2 != 0 || height % 2 != 0) {
        HOST_LOGE("The encoder cannot encode %ux%u: width and height must be even", width, height);
        return false;
    }
    return true;
}

bool format_is_possible(const ZU_VENC_OpenParams_t& params)
{
    if (params.eCodecType != E_ZU_VENC_CODEC_H264) {
        HOST_LOGE("The encoder does not support codec %u, only 1 (H.264)", params.eCodecType);
        return false;
    }
    if (params.eColorFormat != E_ZU_VENC_COLOR_COPY &&
        params.eColorFormat != E_ZU_VENC_COLOR_INJECT) {
        HOST_LOGE("The encoder does not support color format %u, only 0 and 6 (both NV12)",
                  params.eColorFormat);
        return false;
    }
    return true;
}

bool stream_is_possible(const ZU_VENC_OpenParams_t& params)
{
    if (params.u32FrameRate > common::greatest_frame_rate) {
        HOST_LOGE("The encoder cannot encode %u pictures per second: at most %u",
                  params.u32FrameRate, common::greatest_frame_rate);
        return false;
    }
    if (params.u32Profile != 0 && std::ranges::count(known_profiles, params.u32Profile) == 0) {
        HOST_LOGE("The encoder does not support profile_idc %u, only 66, 77 and 100",
                  params.u32Profile);
        return false;
    }
    if (params.u32Level != 0 && std::ranges::count(known_levels, params.u32Level) == 0) {
        HOST_LOGE(
            "The encoder does not support level %u: levels are ten times level_idc, 100 to 520",
            params.u32Level);
        return false;
    }
    return true;
}

bool callback_is_there(const ZU_VENC_OpenParams_t& params)
{
    if (params.pfnCallback && (params.u32EventMask & ZU_VENC_EVENT_FRAME))
        return true;
    HOST_LOGE("The encoder needs a callback, and encoded frames in its event mask");
    return false;
}

} // namespace

EncoderRate EncoderRate::of(uint32_t bitrate)
{
    const uint64_t bits = uint64_t{bitrate} * 1024;
    if (bits == 0 || bits > common::greatest_bit_rate)
        return {.as_needed = true, .kilobits = common::recording_kilobits};
    return {.as_needed = false, .kilobits = static_cast<int>(std::max<uint64_t>(bits / 1000, 1))};
}

std::optional<EncoderSettings> encoder_settings_of(const ZU_VENC_OpenParams_t& params)
{
    if (!format_is_possible(params) || !size_is_possible(params.u32Width, params.u32Height) ||
        !stream_is_possible(params) || !callback_is_there(params))
        return std::nullopt;
    return EncoderSettings{
        .size = {params.u32Width, params.u32Height},
        .layout = PictureLayout::of(params.u32Width, params.u32Height),
        .frame_rate = params.u32FrameRate == 0 ? default_frame_rate : params.u32FrameRate,
        .rate = EncoderRate::of(params.u32Bitrate),
        .profile = params.u32Profile,
        .level = params.u32Level,
        .inject = params.eColorFormat == E_ZU_VENC_COLOR_INJECT,
    };
}

void take_requests(EncoderSettings& settings)
{
    settings.rare_key_frames = rare_key_frames.exchange(false);
    const std::lock_guard lock(wish_mutex);
    const std::optional<Wish> made = std::exchange(wish, std::nullopt);
    if (!made || !settings.rate.as_needed)
        return;
    settings.quality = made->factor;
    settings.rate.as_needed = made->factor != 0;
    if (made->kilobits != 0)
        settings.rate.kilobits = made->kilobits;
}

} // namespace zu3host

HOST_EXPORT void zu3_host_quality(uint32_t quality, uint32_t ceiling)
{
    using namespace zu3host;
    if (quality <= common::worst_quality && ceiling <= greatest_rate)
        set_wish({.factor = static_cast<int>(std::max(quality, best_lossy_quality)),
                  .kilobits = static_cast<int>(ceiling)});
}

HOST_EXPORT void zu3_host_rare_key_frames()
{
    zu3host::rare_key_frames = true;
}

HOST_EXPORT void zu3_host_bit_rate(uint32_t rate)
{
    if (rate > 0 && rate <= zu3host::greatest_rate)
        zu3host::set_wish({.factor = 0, .kilobits = static_cast<int>(rate)});
}
