#pragma once

#include "base/picture_layout.h"
#include "capture/x11_connection.h"

#include <common/x11_screen.h>
#include <cstdint>
#include <memory>
#include <xcb/shm.h>

namespace zu3host {

/**
 * The pixels of the root window, fetched again and again: into memory shared with the server, or
 * through the connection if the server cannot share. One thread at a time.
 */
class X11Image {
public:
    /** Null when no shared memory can be made; the fallback always can. */
    static std::unique_ptr<X11Image> shared(X11Connection& connection, PictureSize size);
    static std::unique_ptr<X11Image> plain(X11Connection& connection, PictureSize size);
    ~X11Image();
    X11Image(const X11Image&) = delete;
    X11Image& operator=(const X11Image&) = delete;

    /** Asks for the pixels; to be followed by collect(). */
    void request();
    /**
     * Waits for them. False when the server refuses, for example because the window has become
     * smaller than the image.
     */
    bool collect();

    PictureSize size() const { return size_; }
    uint32_t stride() const { return size_.width * 4; }
    /**
     * The pixels of the last fetch, as BgraImage describes them, which may be drawn on; null before
     * the first.
     */
    uint8_t* pixels() const { return pixels_; }

private:
    X11Image(X11Connection& connection, PictureSize size);
    bool share();
    size_t bytes() const { return size_t{stride()} * size_.height; }
    void keep_plain(XcbOwned<xcb_get_image_reply_t> reply);
    void bring_to_eight_bits();

    X11Connection& connection_;
    PictureSize size_;
    // of the server's pixels
    common::PixelFormat format_;
    unsigned sequence_ = 0;
    uint8_t* pixels_ = nullptr;
    // of the shared kind
    xcb_shm_seg_t segment_ = 0;
    // of the other kind: holds the pixels
    XcbOwned<xcb_get_image_reply_t> reply_;
};

/** Whether the screen's pixels have a format that is known; logged when not. */
bool has_known_pixels(const X11Connection& connection);

} // namespace zu3host
