#include "encoder/exact_size.h"

#include "base/border.h"
#include "base/picture_layout.h"
#include "encoder/encoder_settings.h"
#include "zu3_host/exact_size.h"

#include <mutex>
#include <utility>

namespace zu3host {
namespace {

std::mutex mutex;
// under the mutex; 0x0 = nothing is asked for
PictureSize asked_for{0, 0};

} // namespace

PictureSize take_exact_size(PictureSize opened)
{
    const std::lock_guard lock(mutex);
    const PictureSize exact = std::exchange(asked_for, {0, 0});
    const PictureLayout layout = PictureLayout::of(exact.width, exact.height);
    const bool rounded = opened.width == layout.stride && opened.height == layout.lines;
    return rounded ? exact : opened;
}

} // namespace zu3host

HOST_EXPORT void zu3_host_exact_size(uint32_t width, uint32_t height)
{
    using namespace zu3host;
    if (width >= min_encoder_size && height >= min_encoder_size && width <= max_encoder_width &&
        height <= max_encoder_height && width % 2 == 0 && height % 2 == 0) {
        const std::lock_guard lock(mutex);
        asked_for = {width, height};
    }
}
