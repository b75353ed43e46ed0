#include "capture/x11_image.h"

#include "capture/x11_replies.h"
#include "log/host_log.h"

#include <fcntl.h>
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

const xcb_visualtype_t* root_visual(const xcb_screen_t& screen)
{
    for (auto depths = xcb_screen_allowed_depths_iterator(&screen); depths.rem; xcb_depth_next(&depths))
        for (auto visuals = xcb_depth_visuals_iterator(depths.data); visuals.rem;
             xcb_visualtype_next(&visuals))
            if (visuals.data->visual_id == screen.root_visual)
                return visuals.data;
    return nullptr;
}

uint32_t bits_per_pixel(const X11Connection& connection)
{
    auto formats = xcb_setup_pixmap_formats_iterator(xcb_get_setup(connection.xcb()));
    for (; formats.rem; xcb_format_next(&formats))
        if (formats.data->depth == connection.screen().root_depth)
            return formats.data->bits_per_pixel;
    return 0;
}

} // namespace

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
        return false; // 1.2 is the first that takes a descriptor
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
        sequence_ =
            xcb_get_image(connection_.xcb(), XCB_IMAGE_FORMAT_Z_PIXMAP, root, 0, 0, width, height, all_planes)
                .sequence;
}

bool X11Image::collect()
{
    if (segment_)
        return connection_.wait<xcb_shm_get_image_reply_t>(sequence_).reply != nullptr;
    auto answer = connection_.wait<xcb_get_image_reply_t>(sequence_);
    if (!answer.reply || !holds_behind(*answer.reply, bytes()))
        return false;
    keep_plain(std::move(answer.reply));
    return true;
}

void X11Image::keep_plain(XcbOwned<xcb_get_image_reply_t> reply)
{
    reply_ = std::move(reply);
    pixels_ = xcb_get_image_data(reply_.get());
}

bool has_bgrx_pixels(const X11Connection& connection)
{
    const xcb_visualtype_t* visual = root_visual(connection.screen());
    const uint32_t bits = bits_per_pixel(connection);
    const bool little = xcb_get_setup(connection.xcb())->image_byte_order == XCB_IMAGE_ORDER_LSB_FIRST;
    if (visual && bits == 32 && little && visual->red_mask == 0xFF0000 && visual->green_mask == 0xFF00 &&
        visual->blue_mask == 0xFF)
        return true;
    HOST_LOGE(
        "The screen of DISPLAY=\"%s\" has %u bits a pixel at depth %u%s, which cannot be captured: run it at "
        "depth 24 or 32 with 8 bits each of red, green and blue.",
        connection.display().c_str(), bits, connection.screen().root_depth, little ? "" : ", big-endian");
    return false;
}

} // namespace zu3host
