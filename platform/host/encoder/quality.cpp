#include "encoder/quality.h"

#include "base/border.h"

#include <algorithm>
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

void set_wish(Wish made)
{
    const std::lock_guard lock(wish_mutex);
    wish = made;
}

} // namespace

void take_quality(EncoderSettings& settings)
{
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

HOST_EXPORT void zu3_host_bit_rate(uint32_t rate)
{
    if (rate > 0 && rate <= zu3host::greatest_rate)
        zu3host::set_wish({.factor = 0, .kilobits = static_cast<int>(rate)});
}
