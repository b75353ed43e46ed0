#include "capture/x11_pointer.h"

#include "base/host_log.h"

#include <algorithm>
#include <common/x11_screen.h>
#include <cstring>
#include <libyuv/planar_functions.h>

namespace zu3host {

X11Pointer::X11Pointer(X11Connection& connection) : connection_(connection)
{
    xcb_connection_t* xcb = connection.xcb();
    if (connection.has(&xcb_xfixes_id)) {
        // The server serves the extension only after a request for its version.
        const auto asked = xcb_xfixes_query_version(xcb, 4, 0);
        available_ =
            connection.wait<xcb_xfixes_query_version_reply_t>(asked.sequence).reply != nullptr;
    }
    if (!available_) {
        HOST_LOGW(
            "The X server of DISPLAY=\"%s\" has no XFIXES extension: the pointer will not be in the picture.",
            connection.display().c_str());
        return;
    }
    first_event_ = xcb_get_extension_data(xcb, &xcb_xfixes_id)->first_event;
    xcb_xfixes_select_cursor_input(xcb, connection.screen().root,
                                   XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR);
}

bool X11Pointer::handle_event(const xcb_generic_event_t& event)
{
    if (!available_ || (event.response_type & 0x7F) != first_event_ + XCB_XFIXES_CURSOR_NOTIFY)
        return false;
    image_stale_ = true;
    return true;
}

void X11Pointer::request(xcb_window_t window)
{
    if (!available_)
        return;
    position_sequence_ = xcb_query_pointer(connection_.xcb(), window).sequence;
    image_asked_ = image_stale_;
    // an event that comes from here on is about a change after the image
    image_stale_ = false;
    if (image_asked_)
        image_sequence_ = xcb_xfixes_get_cursor_image(connection_.xcb()).sequence;
}

void X11Pointer::collect()
{
    if (!available_)
        return;
    const auto position = connection_.wait<xcb_query_pointer_reply_t>(position_sequence_);
    if (position.reply) {
        const xcb_query_pointer_reply_t& now = *position.reply;
        const bool moved =
            (now.same_screen != 0) != on_screen_ || now.win_x != x_ || now.win_y != y_;
        on_screen_ = now.same_screen;
        x_ = now.win_x;
        y_ = now.win_y;
        changes_ += moved;
    }
    if (!image_asked_)
        return;
    auto image = connection_.wait<xcb_xfixes_get_cursor_image_reply_t>(image_sequence_);
    if (image.reply || image.error)
        take_image(std::move(image.reply));
    else
        // passed over, or the connection ended
        image_stale_ = true;
}

void X11Pointer::take_image(XcbOwned<xcb_xfixes_get_cursor_image_reply_t> image)
{
    // An error instead of an image means that the pointer is hidden.
    const bool complete =
        image &&
        common::holds_behind(*image, uint64_t{image->width} * image->height * sizeof(uint32_t));
    image_ = complete ? std::move(image) : nullptr;
    ++changes_;
}

void X11Pointer::draw(uint8_t* pixels, uint32_t stride, PictureSize size, int32_t left, int32_t top)
{
    drawn_.reset();
    if (!on_screen_ || !image_)
        return;
    const int32_t width = image_->width;
    const int32_t height = image_->height;
    const int32_t x = x_ - image_->xhot - left;
    const int32_t y = y_ - image_->yhot - top;
    const int32_t begin_x = std::max(x, 0);
    const int32_t begin_y = std::max(y, 0);
    const int32_t end_x = std::min(x + width, static_cast<int32_t>(size.width));
    const int32_t end_y = std::min(y + height, static_cast<int32_t>(size.height));
    if (begin_x >= end_x || begin_y >= end_y)
        return;
    drawn_ = PictureRectangle{
        static_cast<uint32_t>(begin_x),
        static_cast<uint32_t>(begin_y),
        {static_cast<uint32_t>(end_x - begin_x), static_cast<uint32_t>(end_y - begin_y)}};
    copy_kept(pixels, stride, false);
    const uint32_t* cursor = xcb_xfixes_get_cursor_image_cursor_image(image_.get());
    const auto* shown =
        reinterpret_cast<const uint8_t*>(cursor + ptrdiff_t{begin_y - y} * width + (begin_x - x));
    uint8_t* under = pixels + size_t{stride} * drawn_->y + size_t{4} * drawn_->x;
    // Both expect colors premultiplied by alpha.
    libyuv::ARGBBlend(shown, width * 4, under, static_cast<int>(stride), under,
                      static_cast<int>(stride), end_x - begin_x, end_y - begin_y);
}

void X11Pointer::erase(uint8_t* pixels, uint32_t stride)
{
    if (drawn_)
        copy_kept(pixels, stride, true);
    drawn_.reset();
}

void X11Pointer::copy_kept(uint8_t* pixels, uint32_t stride, bool back)
{
    const size_t line_bytes = size_t{4} * drawn_->size.width;
    // grows to the largest pointer
    if (kept_.size() < line_bytes * drawn_->size.height)
        kept_.resize(line_bytes * drawn_->size.height);
    for (uint32_t line = 0; line < drawn_->size.height; ++line) {
        uint8_t* const in_image =
            pixels + size_t{stride} * (drawn_->y + line) + size_t{4} * drawn_->x;
        uint8_t* const in_kept = kept_.data() + line_bytes * line;
        std::memcpy(back ? in_image : in_kept, back ? in_kept : in_image, line_bytes);
    }
}

} // namespace zu3host
