#include "capture/x11_image.h"

#include "base/host_log.h"

#include <common/x11_screen.h>
#include <fcntl.h>
#include <libyuv/convert_argb.h>
#include <sys/mman.h>
#include <unistd.h>

namespace zu3host {

namespace {

constexpr uint32_t all_planes = ~0u;

int make_memory(size_t bytes)
{
    const int fd = memfd_create("zu3 screen", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0)
        return -1;
    // The server would fault on memory that shrinks under it.
    if (ftruncate(fd, static_cast<off_t>(bytes)) == 0 &&
        fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_SEAL) == 0)
        return fd;
    close(fd);
    return -1;
}

} // namespace

X11Image::X11Image(X11Connection& connection, PictureSize size)
    : connection_(connection), size_(size),
      format_(common::pixel_format(*xcb_get_setup(connection.xcb()), connection.screen())
                  .value_or(common::PixelFormat::bgrx8))
{
}

std::unique_ptr<X11Image> X11Image::shared(X11Connection& connection, PictureSize size)
{
    std::unique_ptr<X11Image> image(new X11Image(connection, size));
    return image->share() ? std::move(image) : nullptr;
}

std::unique_ptr<X11Image> X11Image::plain(X11Connection& connection, PictureSize size)
{
    return std::unique_ptr<X11Image>(new X11Image(connection, size));
}

X11Image::~X11Image()
{
    if (!segment_)
        return;
    xcb_shm_detach(connection_.xcb(), segment_);
    munmap(pixels_, bytes());
}

bool X11Image::share()
{
    if (!connection_.is_local() || !connection_.has(&xcb_shm_id))
        return false;
    const auto asked = xcb_shm_query_version(connection_.xcb());
    const auto version = connection_.wait<xcb_shm_query_version_reply_t>(asked.sequence);
    if (!version.reply || (version.reply->major_version == 1 && version.reply->minor_version < 2))
        // 1.2 is the first that accepts a descriptor
        return false;
    const int fd = make_memory(bytes());
    if (fd < 0)
        return false;
    void* memory = mmap(nullptr, bytes(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        close(fd);
        return false;
    }
    const xcb_shm_seg_t segment = xcb_generate_id(connection_.xcb());
    // xcb closes the descriptor once it is sent.
    if (!connection_.succeeded(xcb_shm_attach_fd_checked(connection_.xcb(), segment, fd, 0))) {
        munmap(memory, bytes());
        return false;
    }
    segment_ = segment;
    pixels_ = static_cast<uint8_t*>(memory);
    return true;
}

void X11Image::request()
{
    const xcb_window_t root = connection_.screen().root;
    const auto width = static_cast<uint16_t>(size_.width);
    const auto height = static_cast<uint16_t>(size_.height);
    if (segment_)
        sequence_ = xcb_shm_get_image(connection_.xcb(), root, 0, 0, width, height, all_planes,
                                      XCB_IMAGE_FORMAT_Z_PIXMAP, segment_, 0)
                        .sequence;
    else
        sequence_ = xcb_get_image(connection_.xcb(), XCB_IMAGE_FORMAT_Z_PIXMAP, root, 0, 0, width,
                                  height, all_planes)
                        .sequence;
}

bool X11Image::collect()
{
    if (segment_) {
        if (!connection_.wait<xcb_shm_get_image_reply_t>(sequence_).reply)
            return false;
    } else {
        auto answer = connection_.wait<xcb_get_image_reply_t>(sequence_);
        if (!answer.reply || !common::holds_behind(*answer.reply, bytes()))
            return false;
        keep_plain(std::move(answer.reply));
    }
    bring_to_eight_bits();
    return true;
}

void X11Image::keep_plain(XcbOwned<xcb_get_image_reply_t> reply)
{
    reply_ = std::move(reply);
    pixels_ = xcb_get_image_data(reply_.get());
}

void X11Image::bring_to_eight_bits()
{
    if (format_ == common::PixelFormat::bgrx8)
        return;
    // In place: a pixel keeps its size.
    const auto convert =
        format_ == common::PixelFormat::xrgb10 ? libyuv::AR30ToARGB : libyuv::AB30ToARGB;
    const auto line = static_cast<int>(stride());
    convert(pixels_, line, pixels_, line, static_cast<int>(size_.width),
            static_cast<int>(size_.height));
}

bool has_known_pixels(const X11Connection& connection)
{
    const xcb_setup_t& server = *xcb_get_setup(connection.xcb());
    if (common::pixel_format(server, connection.screen()))
        return true;
    HOST_LOGE("The screen of DISPLAY=\"%s\" cannot be captured: %s.", connection.display().c_str(),
              common::unknown_pixel_format(server, connection.screen()).c_str());
    return false;
}

} // namespace zu3host
