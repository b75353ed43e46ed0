#include "renderer/counted.h"
#include "renderer/video_buffer.h"
#include "renderer/watermark.h"

#include "base/border.h"

#include <mutex>
#include <new>

namespace zu3host {

namespace {

/**
 * Holds the watermark of the moment: a picture that is being drawn keeps the one that it began
 * with.
 */
class Worker final : public android::vexa_screenrecord::SrGlWorker {
public:
    std::shared_ptr<const Watermark> watermark() const
    {
        const std::lock_guard lock(mutex_);
        return watermark_;
    }
    void replace(std::shared_ptr<const Watermark> watermark)
    {
        const std::lock_guard lock(mutex_);
        watermark_.swap(watermark);
    }

private:
    mutable std::mutex mutex_;
    // under the mutex
    std::shared_ptr<const Watermark> watermark_;
};

} // namespace

} // namespace zu3host

namespace android::vexa_screenrecord {

using zu3host::at_border;
using zu3host::Watermark;
using zu3host::Worker;

namespace {

constexpr int refused = -1;

} // namespace

HOST_EXPORT sp<SrGlWorker> SrGlWorker::newWorker()
{
    return zu3host::counted(new (std::nothrow) Worker);
}

// A processor needs no preparation.
HOST_EXPORT int SrGlWorker::prepare()
{
    return 0;
}

HOST_EXPORT int SrGlWorker::setWatermark(sp<WatermarkParams> params)
{
    if (!params)
        return refused;
    return at_border("Setting a watermark", refused, [&] {
        std::shared_ptr<const Watermark> watermark;
        if (!Watermark::shows_nothing(*params) && !(watermark = Watermark::from(*params)))
            return refused;
        static_cast<Worker*>(this)->replace(std::move(watermark));
        return 0;
    });
}

HOST_EXPORT int SrGlWorker::render(sp<VideoBuffer> buffer)
{
    if (!buffer)
        return refused;
    return at_border("Drawing a watermark", refused, [&] {
        if (const auto watermark = static_cast<Worker*>(this)->watermark()) {
            const auto& picture = static_cast<const zu3host::Nv12Buffer&>(*buffer);
            watermark->draw(picture.luma, picture.chroma);
        }
        return 0;
    });
}

HOST_EXPORT int SrGlWorker::reset()
{
    return at_border("Removing a watermark", refused, [this] {
        static_cast<Worker*>(this)->replace(nullptr);
        return 0;
    });
}

} // namespace android::vexa_screenrecord
