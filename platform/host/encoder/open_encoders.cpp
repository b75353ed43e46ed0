#include "encoder/open_encoders.h"

#include "base/picture_layout.h"
#include "encoder/open_encoder_scopes.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace zu3host {
namespace {

// Never destroyed: an encoder may still be open when the process ends.
struct Sizes {
    std::mutex mutex;
    // oldest first
    std::vector<const PictureSize*> open;
};

Sizes& sizes()
{
    static Sizes& instance = *new Sizes;
    return instance;
}

thread_local std::optional<uint64_t> frame_time;

} // namespace

OpenSize::OpenSize(PictureSize size) : size_(size)
{
    const std::lock_guard lock(sizes().mutex);
    sizes().open.push_back(&size_);
}

OpenSize::~OpenSize()
{
    const std::lock_guard lock(sizes().mutex);
    std::erase(sizes().open, &size_);
}

std::optional<PictureSize> exact_size_of_open_encoder(uint32_t width16, uint32_t height32)
{
    const std::lock_guard lock(sizes().mutex);
    const std::vector<const PictureSize*>& open = sizes().open;
    const auto latest = std::find_if(open.rbegin(), open.rend(), [&](const PictureSize* size) {
        const PictureLayout layout = PictureLayout::of(size->width, size->height);
        return layout.stride == width16 && layout.lines == height32;
    });
    return latest == open.rend() ? std::nullopt : std::optional(**latest);
}

FrameTimeInCallback::FrameTimeInCallback(uint64_t time)
{
    frame_time = time;
}

FrameTimeInCallback::~FrameTimeInCallback()
{
    frame_time.reset();
}

std::optional<uint64_t> time_of_frame_in_callback()
{
    return frame_time;
}

} // namespace zu3host
