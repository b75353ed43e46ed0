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
    /** the window that shows the same pixels; source of DAMAGE events and of the pointer's place */
    xcb_window_t window;
    /** the corner in that window */
    int16_t window_x;
    int16_t window_y;
    bool operator==(const X11Place&) const = default;
};

/**
 * The pixels of a place. Keeps them between fetches and fetches only parts: through memory shared
 * with the server, or through the connection if the server cannot share. Whole lines are fetched
 * into their place; a narrower part arrives behind the image, without gaps, and is copied. One
 * thread at a time.
 */
class X11Image {
public:
    /** Number of checks that cover all lines. */
    static constexpr uint32_t checks = 16;

    /** Null if memory cannot be shared; plain() always succeeds. */
    static std::unique_ptr<X11Image> shared(X11Connection& connection, PictureSize size);
    static std::unique_ptr<X11Image> plain(X11Connection& connection, PictureSize size);
    ~X11Image();
    X11Image(const X11Image&) = delete;
    X11Image& operator=(const X11Image&) = delete;

    /**
     * Asks for some parts of the place, which has this image's size; call collect() next. If there
     * is not enough room, `parts` becomes all lines that contain them.
     */
    void request(const X11Place& place, PartList& parts);
    /** Asks, after request(), for the next lines in turn, to compare them with the kept ones. */
    void request_check(const X11Place& place);
    /**
     * Waits for the answers. Adds lines that differ from the kept ones to `changed`. False if the
     * server refuses a request, for example because the window shrank: fetch the whole image before
     * you use its pixels.
     */
    bool collect(PartList& changed);

    PictureSize size() const { return size_; }
    uint32_t stride() const { return size_.width * 4; }
    /** The kept pixels, laid out like BgraImage's. Drawing on them is allowed. */
    uint8_t* pixels() { return pixels_; }

private:
    /** A requested part. */
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
    // shared() only: contains the image and the room behind it
    xcb_shm_seg_t segment_ = 0;
    // plain() only
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
