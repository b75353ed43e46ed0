#include "renderer/video_buffer.h"

#include "base/border.h"
#include "renderer/counted.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <sys/stat.h>

namespace zu3host {

namespace {

constexpr uint32_t known_version = 0x201;
constexpr uint32_t nv12_format = 0x23;

/** Bytes behind a plane's last one, from the buffer's start. */
uint64_t end_of_plane(uint32_t offset, uint32_t pitch, uint64_t bytes, uint64_t lines)
{
    return offset + pitch * (lines - 1) + bytes;
}

/**
 * Whether the buffer's descriptor says that it ends earlier; one that is no ordinary file says
 * nothing.
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
