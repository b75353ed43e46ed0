#pragma once

#include "base/picture_layout.h"
#include "capture/picture_source.h"
#include "capture/x11_connection.h"

#include <cstdint>
#include <optional>
#include <vector>
#include <xcb/xfixes.h>

namespace zu3host {

/** The pointer of an X11 screen: where it is and what it looks like. One thread at a time. */
class X11Pointer {
public:
    /** Without the XFIXES extension there is never a pointer to draw, which is logged. */
    explicit X11Pointer(X11Connection& connection);

    bool available() const { return available_; }
    /** Notes an event; false if it does not concern the pointer. */
    bool handle_event(const xcb_generic_event_t& event);
    /**
     * Asks for the pointer's position on a window, and for its image if that changed. Call
     * collect() next.
     */
    void request(xcb_window_t window);
    /** Waits for the answers. */
    void collect();
    /**
     * Draws it at its position of the last collect(), into an image whose top left corner is
     * (left, top) of the window, and saves the pixels below it.
     */
    void draw(uint8_t* pixels, uint32_t stride, PictureSize size, int32_t left, int32_t top);
    /** Restores the saved pixels of the image. */
    void erase(uint8_t* pixels, uint32_t stride);
    /** Call it after that image was destroyed. */
    void forget_drawing() { drawn_.reset(); }
    /** Its rectangle in the image; nullopt if it is not drawn. */
    const std::optional<PictureRectangle>& drawn() const { return drawn_; }

    /** Counts up whenever collect() found another position or image of the pointer. */
    uint64_t changes() const { return changes_; }

private:
    void take_image(XcbOwned<xcb_xfixes_get_cursor_image_reply_t> image);
    void copy_kept(uint8_t* pixels, uint32_t stride, bool back);

    X11Connection& connection_;
    bool available_ = false;
    uint8_t first_event_ = 0;
    bool image_stale_ = true;
    bool image_asked_ = false;
    unsigned position_sequence_ = 0;
    unsigned image_sequence_ = 0;
    // null: nothing to draw
    XcbOwned<xcb_xfixes_get_cursor_image_reply_t> image_;
    bool on_screen_ = false;
    int32_t x_ = 0;
    int32_t y_ = 0;
    uint64_t changes_ = 0;
    std::optional<PictureRectangle> drawn_;
    // the saved pixels
    std::vector<uint8_t> kept_;
};

} // namespace zu3host
