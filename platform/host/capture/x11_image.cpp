#include "capture/x11_image.h"

#include "base/host_log.h"

#include <algorithm>
#include <common/x11_screen.h>
#include <cstring>
#include <fcntl.h>
#include <libyuv/convert_argb.h>
#include <libyuv/planar_functions.h>
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

uint32_t divided_up(uint32_t number, uint32_t divisor)
{
    return (number + divisor - 1) / divisor;
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
    std::unique_ptr<X11Image> image(new X11Image(connection, size));
    image->plain_.resize(image->bytes());
    image->pixels_ = image->plain_.data();
    return image;
}

X11Image::~X11Image()
{
    if (!segment_)
        return;
    xcb_shm_detach(connection_.xcb(), segment_);
    munmap(pixels_, bytes() + room_behind());
}

size_t X11Image::room_of_a_check() const
{
    return size_t{stride()} * divided_up(size_.height, checks);
}

size_t X11Image::room_behind() const
{
    // Pages that are never used cost no memory.
    return room_of_a_check() + size_t{stride()} * divided_up(size_.height, 4);
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
    const size_t size = bytes() + room_behind();
    const int fd = make_memory(size);
    if (fd < 0)
        return false;
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        close(fd);
        return false;
    }
    const xcb_shm_seg_t segment = xcb_generate_id(connection_.xcb());
    // xcb closes the descriptor once it is sent.
    if (!connection_.succeeded(xcb_shm_attach_fd_checked(connection_.xcb(), segment, fd, 0))) {
        munmap(memory, size);
        return false;
    }
    segment_ = segment;
    pixels_ = static_cast<uint8_t*>(memory);
    // Touches the room for checks now, so that its first use does not look like a leak.
    std::memset(pixels_ + bytes(), 0, room_of_a_check());
    return true;
}

bool X11Image::is_whole_lines(const PictureRectangle& part) const
{
    return part.size.width == size_.width;
}

void X11Image::request(const X11Place& place, PartList& parts)
{
    const uint64_t room = uint64_t{size_.width} * divided_up(size_.height, 4);
    uint64_t narrow = 0;
    for (const PictureRectangle& part : parts.parts())
        narrow += is_whole_lines(part) ? 0 : uint64_t{part.size.width} * part.size.height;
    if (narrow > room) {
        const PictureRectangle bounds = parts.bounds();
        parts.clear();
        parts.add({0, bounds.y, {size_.width, bounds.size.height}});
    }
    // Whole lines first, since an overlapping narrow part is stored over them.
    for (const bool lines : {true, false})
        for (const PictureRectangle& part : parts.parts())
            if (is_whole_lines(part) == lines)
                ask(place, part, false);
}

void X11Image::request_check(const X11Place& place)
{
    const uint32_t lines = divided_up(size_.height, checks);
    if (next_check_ >= size_.height)
        next_check_ = 0;
    const PictureRectangle part{
        0, next_check_, {size_.width, std::min(lines, size_.height - next_check_)}};
    next_check_ += lines;
    ask(place, part, true);
}

void X11Image::ask(const X11Place& place, const PictureRectangle& part, bool check)
{
    const auto x = static_cast<int16_t>(place.x + static_cast<int32_t>(part.x));
    const auto y = static_cast<int16_t>(place.y + static_cast<int32_t>(part.y));
    const auto width = static_cast<uint16_t>(part.size.width);
    const auto height = static_cast<uint16_t>(part.size.height);
    Asked& asked = asked_[asked_count_++];
    asked = {part, 0, size_t{stride()} * part.y, check};
    if (check) {
        asked.offset = bytes();
    } else if (!is_whole_lines(part)) {
        asked.offset = bytes() + room_of_a_check() + room_used_;
        room_used_ += size_t{4} * width * height;
    }
    xcb_connection_t* const xcb = connection_.xcb();
    asked.sequence = segment_ ? xcb_shm_get_image(xcb, place.drawable, x, y, width, height,
                                                  all_planes, XCB_IMAGE_FORMAT_Z_PIXMAP, segment_,
                                                  static_cast<uint32_t>(asked.offset))
                                    .sequence
                              : xcb_get_image(xcb, XCB_IMAGE_FORMAT_Z_PIXMAP, place.drawable, x, y,
                                              width, height, all_planes)
                                    .sequence;
}

bool X11Image::collect(PartList& changed)
{
    bool complete = true;
    for (size_t i = 0; i < asked_count_; ++i)
        // waits for each, since the server may still write to that memory
        complete = store(asked_[i], changed) && complete;
    asked_count_ = 0;
    room_used_ = 0;
    return complete;
}

bool X11Image::store(const Asked& asked, PartList& changed)
{
    XcbOwned<xcb_get_image_reply_t> reply;
    uint8_t* from = pixels_ + asked.offset;
    if (segment_) {
        if (!connection_.wait<xcb_shm_get_image_reply_t>(asked.sequence).reply)
            return false;
    } else {
        reply = connection_.wait<xcb_get_image_reply_t>(asked.sequence).reply;
        const uint64_t needed = uint64_t{4} * asked.part.size.width * asked.part.size.height;
        if (!reply || !common::holds_behind(*reply, needed))
            return false;
        from = xcb_get_image_data(reply.get());
    }
    if (asked.check)
        compare(asked.part, from, changed);
    else
        store_pixels(asked.part, from);
    return true;
}

void X11Image::store_pixels(const PictureRectangle& part, const uint8_t* from)
{
    uint8_t* const to = kept(part.x, part.y);
    const auto from_stride = static_cast<int>(part.size.width * 4);
    const auto to_stride = static_cast<int>(stride());
    const auto width = static_cast<int>(part.size.width);
    const auto height = static_cast<int>(part.size.height);
    // A pixel keeps its size, so the conversion can work in place.
    if (format_ == common::PixelFormat::xrgb10)
        libyuv::AR30ToARGB(from, from_stride, to, to_stride, width, height);
    else if (format_ == common::PixelFormat::xbgr10)
        libyuv::AB30ToARGB(from, from_stride, to, to_stride, width, height);
    else if (from != to)
        libyuv::ARGBCopy(from, from_stride, to, to_stride, width, height);
}

void X11Image::compare(const PictureRectangle& lines, uint8_t* from, PartList& changed)
{
    const auto line_bytes = static_cast<int>(stride());
    const auto width = static_cast<int>(size_.width);
    const auto height = static_cast<int>(lines.size.height);
    if (format_ == common::PixelFormat::xrgb10)
        libyuv::AR30ToARGB(from, line_bytes, from, line_bytes, width, height);
    else if (format_ == common::PixelFormat::xbgr10)
        libyuv::AB30ToARGB(from, line_bytes, from, line_bytes, width, height);
    for (uint32_t line = 0; line < lines.size.height; ++line) {
        uint8_t* const to = kept(0, lines.y + line);
        if (std::memcmp(to, from + size_t{stride()} * line, stride()) == 0)
            continue;
        std::memcpy(to, from + size_t{stride()} * line, stride());
        changed.add({0, lines.y + line, {size_.width, 1}});
    }
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
