#include "encoder/quality.h"

#include "base/border.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <zu3_host/quality.h>

namespace zu3host {
namespace {

struct Quality {
    int factor;
    int ceiling_kilobits;
};

constexpr uint32_t greatest_ceiling = common::greatest_bit_rate / 1000;
// Below it x264 encodes without loss, in a profile that few players know.
constexpr uint32_t best_lossy_quality = 1;

std::mutex quality_mutex;
// under the mutex
std::optional<Quality> quality_asked_for;

} // namespace

void take_quality(EncoderSettings& settings)
{
    const std::lock_guard lock(quality_mutex);
    const std::optional<Quality> quality = std::exchange(quality_asked_for, std::nullopt);
    if (!quality || !settings.rate.as_needed)
        return;
    settings.quality = quality->factor;
    if (quality->ceiling_kilobits != 0)
        settings.rate.kilobits = quality->ceiling_kilobits;
}

} // namespace zu3host

HOST_EXPORT void zu3_host_quality(uint32_t quality, uint32_t ceiling)
{
    using namespace zu3host;
    if (quality > common::worst_quality || ceiling > greatest_ceiling)
        return;
    const std::lock_guard lock(quality_mutex);
    quality_asked_for = {static_cast<int>(std::max(quality, best_lossy_quality)),
                         static_cast<int>(ceiling)};
}
