#include "base/border.h"
#include "renderer/watermark.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <srglworker/SrGlWorker.h>
#include <sys/stat.h>
#include <utils/StrongPointer.h>
#include <zu3_host/drawn_picture.h>

namespace zu3host {

/**
 * The first reference to an object; null when there was no memory for it or for its counter, and
 * then it is gone.
 */
template <typename Object> android::sp<Object> counted(Object* made)
{
    std::unique_ptr<Object> uncounted(made);
    android::sp<Object> first = made;
    if (!made || made->getStrongCount() == 0)
        return nullptr;
    static_cast<void>(uncounted.release());
    return first;
}

/** A picture whose description was checked against its memory. */
class Nv12Buffer final : public android::vexa_screenrecord::SrGlWorker::VideoBuffer {
public:
    Nv12Buffer(const TargetPlane& luma_plane, const TargetPlane& chroma_plane)
        : luma(luma_plane), chroma(chroma_plane)
    {
    }

    const TargetPlane luma;
    /** Cb and Cr of each two by two pixels, interleaved */
    const TargetPlane chroma;
};

namespace {

constexpr uint32_t known_version = 0x201;
constexpr uint32_t nv12_format = 0x23;

/** Bytes behind a plane's last one, from the buffer's start. */
uint64_t end_of_plane(uint32_t offset, uint32_t pitch, uint64_t bytes, uint64_t lines)
{
    return offset + pitch * (lines - 1) + bytes;
}

/**
 * Whether the buffer's file ends before `end`; false for a descriptor of another kind.
 */
bool is_beyond_file(int fd, uint64_t end)
{
    struct stat status {};
    if (fd < 0)
        return false;
    if (fstat(fd, &status) != 0)
        return true;
    return S_ISREG(status.st_mode) && end > static_cast<uint64_t>(status.st_size);
}

/** Why it cannot be drawn into, or null. */
const char* fault_of(const qrl_native_buffer_t& buffer)
{
    if (buffer.version != known_version || buffer.format != nv12_format)
        return "it is not of a known version and NV12";
    if (!buffer.addr || buffer.width == 0 || buffer.height == 0)
        return "it is empty";
    const uint64_t chroma_bytes = (uint64_t{buffer.width} + 1) / 2 * 2,
                   chroma_lines = (uint64_t{buffer.height} + 1) / 2;
    if (buffer.pitch < chroma_bytes)
        return "its lines are shorter than its width";
    if (is_beyond_file(buffer.fd[0],
                       end_of_plane(buffer.offset[0], buffer.pitch, buffer.width, buffer.height)) ||
        is_beyond_file(buffer.fd[1],
                       end_of_plane(buffer.offset[1], buffer.pitch, chroma_bytes, chroma_lines)))
        return "its planes reach beyond its memory";
    return nullptr;
}

/** Once a cause, not once a picture. */
void report(const qrl_native_buffer_t& buffer, const char* fault)
{
    static std::atomic<const char*> reported{nullptr};
    if (reported.exchange(fault, std::memory_order_relaxed) != fault)
        HOST_LOGE("No watermark can be drawn into a picture of %u x %u: %s.", buffer.width,
                  buffer.height, fault);
}

} // namespace

} // namespace zu3host

namespace android::vexa_screenrecord {

HOST_EXPORT sp<SrGlWorker::VideoBuffer>
SrGlWorker::VideoBuffer::newBuffer(const qrl_native_buffer_t& buffer)
{
    using zu3host::TargetPlane;
    if (const char* const fault = zu3host::fault_of(buffer)) {
        zu3host::report(buffer, fault);
        return nullptr;
    }
    auto* const start = static_cast<uint8_t*>(buffer.addr);
    const int64_t width = buffer.width, height = buffer.height;
    return zu3host::counted(new (std::nothrow) zu3host::Nv12Buffer(
        TargetPlane{start + buffer.offset[0], buffer.pitch, width, height},
        TargetPlane{start + buffer.offset[1], buffer.pitch, (width + 1) / 2 * 2,
                    (height + 1) / 2}));
}

} // namespace android::vexa_screenrecord

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
            zu3_host_picture_drawn_on();
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
