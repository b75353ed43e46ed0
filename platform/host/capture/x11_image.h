#pragma once

#include "base/picture_layout.h"
#include "capture/part_list.h"
#include "capture/x11_connection.h"

#include <array>
#include <common/x11_screen.h>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>
#include <xcb/shm.h>

namespace zu3host {

/** The rectangle of a window or pixmap that an image shows. */
struct X11Place {
    xcb_drawable_t drawable;
    /** its top left corner in the drawable; with the size within 16 bits with a sign */
    int16_t x;
    int16_t y;
    PictureSize size;
    /** the window that shows the same pixels, which tells what is drawn and where the pointer is */
    xcb_window_t window;
    /** the corner in that window */
    int16_t window_x;
    int16_t window_y;
    bool operator==(const X11Place&) const = default;
};

/**
 * The pixels of a place, kept from one fetch to the next and fetched in parts: through memory
 * shared with the server, or through the connection if the server cannot share. Lines are fetched
 * straight into their place; a narrower part lies without gaps behind the image, and is copied from
 * there. One thread at a time.
 */
class X11Image {
public:
    /** All lines are checked in so many steps. */
    static constexpr uint32_t checks = 16;

    /** Null when no shared memory can be made; the fallback always can. */
    static std::unique_ptr<X11Image> shared(X11Connection& connection, PictureSize size);
    static std::unique_ptr<X11Image> plain(X11Connection& connection, PictureSize size);
    ~X11Image();
    X11Image(const X11Image&) = delete;
    X11Image& operator=(const X11Image&) = delete;

    /**
     * Asks for the pixels of some parts of the place, which has this image's size; to be followed
     * by collect(). If there is not enough room for them, `parts` become the lines that they lie
     * in, or all.
     */
    void request(const X11Place& place, PartList& parts);
    /** Asks, after request(), for the next lines in turn, to be compared with the kept ones. */
    void request_check(const X11Place& place);
    /**
     * Waits for the answers. Adds lines whose check found other pixels to `changed`. False when the
     * server refuses one, as when the window is no longer as large as the image: fetch all of it
     * before its pixels are used.
     */
    bool collect(PartList& changed);

    PictureSize size() const { return size_; }
    uint32_t stride() const { return size_.width * 4; }
    /** The kept pixels, as BgraImage describes them, which may be drawn on. */
    uint8_t* pixels() { return pixels_; }

private:
    /** A part that was asked for. */
    struct Asked {
        PictureRectangle part;
        unsigned sequence;
        // into the shared memory
        size_t offset;
        bool check;
    };

    X11Image(X11Connection& connection, PictureSize size);
    bool share();
    size_t bytes() const { return size_t{stride()} * size_.height; }
    size_t room_of_a_check() const;
    size_t room_behind() const;
    bool is_whole_lines(const PictureRectangle& part) const;
    void ask(const X11Place& place, const PictureRectangle& part, bool check);
    bool store(const Asked& asked, PartList& changed);
    void store_pixels(const PictureRectangle& part, const uint8_t* from);
    void compare(const PictureRectangle& lines, uint8_t* from, PartList& changed);
    uint8_t* kept(uint32_t x, uint32_t y) const
    {
        return pixels_ + size_t{stride()} * y + size_t{4} * x;
    }

    X11Connection& connection_;
    const PictureSize size_;
    // of the server's pixels
    const common::PixelFormat format_;
    uint8_t* pixels_ = nullptr;
    // of the shared kind: also the room behind the image
    xcb_shm_seg_t segment_ = 0;
    // of the other kind
    std::vector<uint8_t> plain_;
    // the parts and a check
    std::array<Asked, PartList::most + 1> asked_{};
    size_t asked_count_ = 0;
    // by narrow parts
    size_t room_used_ = 0;
    uint32_t next_check_ = 0;
};

/** Whether the screen's pixels have a format that is known; logged when not. */
bool has_known_pixels(const X11Connection& connection);

} // namespace zu3host
