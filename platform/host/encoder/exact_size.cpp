#include "encoder/exact_size.h"

#include "common/picture_layout.h"
#include "encoder/encoder_settings.h"

#include <atomic>

#pragma GCC visibility push(default)
#include "zu3_host/exact_size.h"
#pragma GCC visibility pop

namespace zu3host {
namespace {

std::atomic<PictureSize> asked_for{PictureSize{0, 0}};

} // namespace

PictureSize take_exact_size(PictureSize opened)
{
    const PictureSize exact = asked_for.exchange({0, 0});
    const PictureLayout layout = PictureLayout::of(exact.width, exact.height);
    const bool rounded = opened.width == layout.stride && opened.height == layout.lines;
    return rounded ? exact : opened;
}

} // namespace zu3host

#pragma GCC visibility push(default)

void zu3_host_exact_size(uint32_t width, uint32_t height)
{
    using namespace zu3host;
    if (width >= min_encoder_size && height >= min_encoder_size && width <= max_encoder_width &&
        height <= max_encoder_height && width % 2 == 0 && height % 2 == 0)
        asked_for = PictureSize{width, height};
}

#pragma GCC visibility pop
