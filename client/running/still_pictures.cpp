#include "running/still_pictures.h"

#include <cerrno>
#include <libyuv.h>
#include <sys/mman.h>
#include <unistd.h>

#include "process/messages.h"
#include "running/library_log.h"
#include <screenrecord/screenrecord.h>

namespace client {
namespace {

uint32_t line_bytes(uint32_t format, uint32_t width)
{
    if (format == E_CAP_OUTPUT_FMT_BGRA)
        return width * 4;
    return format == E_CAP_OUTPUT_FMT_NV12 ? width : width * 2;
}

} // namespace

StillPictures::StillPictures(Size size, uint32_t format, bool osd) : size_(size), format_(format)
{
    Cap_OpenParams params = {.width = size.width,
                             .height = size.height,
                             .colorfmt = format,
                             .withosd = osd,
                             .buffer_number = 1};
    if (video_cap_open(&params) != 0) {
        video_cap_close();
        throw library_failure("cannot take a screenshot: the library refused to open the capture");
    }
    try {
        map_planes();
    } catch (...) {
        release();
        throw;
    }
}

StillPictures::~StillPictures()
{
    release();
}

void StillPictures::release()
{
    for (const Plane& plane : planes_)
        munmap(plane.mapping, plane.mapped);
    planes_.clear();
    video_cap_close();
}

void StillPictures::map_planes()
{
    Cap_Buffer buffer = {};
    if (video_cap_getCaptureBuffers(&buffer, 1) != 0)
        throw library_failure(
            "cannot take a screenshot: there is no memory for a picture of this size");
    const size_t first = size_t{line_bytes(format_, size_.width)} * size_.height;
    planes_.push_back(map_plane(buffer.fd[0], buffer.offset[0], buffer.size[0], first));
    if (buffer.planeCount > 1)
        planes_.push_back(map_plane(buffer.fd[1], buffer.offset[1], buffer.size[1], first / 2));
}

StillPictures::Plane StillPictures::map_plane(int fd, uint32_t offset, uint64_t size,
                                              size_t used) const
{
    if (size < used)
        throw Failure("cannot take a screenshot: the capture's buffer is smaller than its picture");
    const size_t behind_page = offset % static_cast<size_t>(sysconf(_SC_PAGESIZE));
    Plane plane{.mapped = used + behind_page, .bytes = used};
    void* mapping = mmap(nullptr, plane.mapped, PROT_READ, MAP_SHARED, fd,
                         static_cast<off_t>(offset - behind_page));
    if (mapping == MAP_FAILED)
        throw Failure("cannot map the captured picture: " + error_text(errno));
    plane.mapping = static_cast<uint8_t*>(mapping);
    plane.start = plane.mapping + behind_page;
    return plane;
}

void StillPictures::capture()
{
    if (video_cap_captureScreen(0) != 0)
        throw library_failure("cannot take a screenshot: the display could not be captured");
}

std::vector<uint8_t> StillPictures::raw_bytes() const
{
    std::vector<uint8_t> bytes;
    for (const Plane& plane : planes_)
        bytes.insert(bytes.end(), plane.start, plane.start + plane.bytes);
    return bytes;
}

// libyuv names formats by their order in a register, so its ARGB is B, G, R, A in memory and its
// RGB24 B, G, R.
std::vector<uint8_t> StillPictures::bgr_bytes() const
{
    const int width = static_cast<int>(size_.width), height = static_cast<int>(size_.height);
    const int stride = static_cast<int>(line_bytes(format_, size_.width));
    std::vector<uint8_t> bgr(size_t{size_.width} * size_.height * 3);
    const uint8_t* source = planes_[0].start;
    if (format_ == E_CAP_OUTPUT_FMT_NV12) {
        libyuv::NV12ToRGB24(source, stride, planes_.at(1).start, stride, bgr.data(), width * 3,
                            width, height);
        return bgr;
    }
    std::vector<uint8_t> bgra;
    if (format_ != E_CAP_OUTPUT_FMT_BGRA) {
        bgra.resize(size_t{size_.width} * size_.height * 4);
        const auto convert =
            format_ == E_CAP_OUTPUT_FMT_YUYV ? libyuv::YUY2ToARGB : libyuv::RGB565ToARGB;
        convert(source, stride, bgra.data(), width * 4, width, height);
        source = bgra.data();
    }
    libyuv::ARGBToRGB24(source, width * 4, bgr.data(), width * 3, width, height);
    return bgr;
}

} // namespace client
