#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include <poll.h>
#include <time.h>
#include <xcb/xcb.h>

/**
 * Shared by the screen programs: a connection to the display of DISPLAY, and a window that covers
 * it without a border, above all others and with an invisible pointer. The program thus controls
 * every pixel of the screen.
 */
class XScreen {
public:
    XScreen() : connection_(xcb_connect(nullptr, nullptr), xcb_disconnect)
    {
        if (!alive())
            return;
        const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(x())).data;
        width = screen->width_in_pixels;
        height = screen->height_in_pixels;
        depth_ = screen->root_depth;
        window = xcb_generate_id(x());
        const uint32_t values[] = {screen->black_pixel, 1, XCB_EVENT_MASK_EXPOSURE,
                                   invisible_pointer(screen->root)};
        xcb_create_window(x(), XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, width, height, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                          XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK |
                              XCB_CW_CURSOR,
                          values);
        gc_ = xcb_generate_id(x());
        const uint32_t no_exposures = 0;
        xcb_create_gc(x(), gc_, window, XCB_GC_GRAPHICS_EXPOSURES, &no_exposures);
    }

    /** Shows the window. */
    void show() { xcb_map_window(x(), window); }

    /** False if the display is unreachable or gone. */
    bool alive() const { return xcb_connection_has_error(x()) == 0; }

    /** Creates a pixmap of the screen's depth; the connection owns it. */
    xcb_pixmap_t new_pixmap(uint16_t pixmap_width, uint16_t pixmap_height)
    {
        const xcb_pixmap_t pixmap = xcb_generate_id(x());
        xcb_create_pixmap(x(), depth_, pixmap, window, pixmap_width, pixmap_height);
        return pixmap;
    }

    /** Fills a rectangle with a colour 0xRRGGBB, also on a screen of depth 30. */
    void fill(xcb_drawable_t target, uint32_t colour, xcb_rectangle_t rectangle)
    {
        if (depth_ == 30)
            colour = ten_bits(colour >> 16) << 20 | ten_bits(colour >> 8) << 10 | ten_bits(colour);
        xcb_change_gc(x(), gc_, XCB_GC_FOREGROUND, &colour);
        xcb_poly_fill_rectangle(x(), target, gc_, 1, &rectangle);
    }

    void copy(xcb_drawable_t from, xcb_drawable_t to, int16_t from_x, int16_t from_y,
              xcb_rectangle_t at)
    {
        xcb_copy_area(x(), from, to, gc_, from_x, from_y, at.x, at.y, at.width, at.height);
    }

    /** Writes pixels 0xRRGGBB, split into requests within the server's limit. */
    void put(xcb_drawable_t target, const std::vector<uint32_t>& pixels, uint16_t image_width)
    {
        const size_t lines = pixels.size() / image_width;
        const size_t per_request =
            xcb_get_maximum_request_length(x()) * size_t{4} / 2 / (image_width * size_t{4});
        for (size_t line = 0; line < lines; line += per_request) {
            const size_t count = std::min(per_request, lines - line);
            xcb_put_image(x(), XCB_IMAGE_FORMAT_Z_PIXMAP, target, gc_, image_width,
                          static_cast<uint16_t>(count), 0, static_cast<int16_t>(line), 0, depth_,
                          static_cast<uint32_t>(count * image_width * 4),
                          reinterpret_cast<const uint8_t*>(&pixels[line * image_width]));
        }
    }

    /** Blocks until the server has drawn all previous requests. */
    void finish() { free(xcb_get_input_focus_reply(x(), xcb_get_input_focus(x()), nullptr)); }
    void flush() { xcb_flush(x()); }

    /** Waits until `deadline_ns` of the monotonic clock. False if the display goes away before. */
    bool wait_until(int64_t deadline_ns)
    {
        for (;;) {
            while (xcb_generic_event_t* event = xcb_poll_for_event(x()))
                free(event);
            if (!alive())
                return false;
            const int64_t left = deadline_ns - now_ns();
            if (left <= 0)
                return true;
            const timespec timeout{left / 1'000'000'000, left % 1'000'000'000};
            pollfd descriptor{xcb_get_file_descriptor(x()), POLLIN, 0};
            ppoll(&descriptor, 1, &timeout, nullptr);
        }
    }

    static int64_t now_ns()
    {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
    }

    uint16_t width = 0;
    uint16_t height = 0;
    xcb_window_t window = 0;

private:
    xcb_connection_t* x() const { return connection_.get(); }

    /** The lowest eight bits as ten. */
    static uint32_t ten_bits(uint32_t colour)
    {
        return (colour & 0xff) << 2 | (colour & 0xff) >> 6;
    }

    xcb_cursor_t invisible_pointer(xcb_window_t root)
    {
        const xcb_pixmap_t nothing = xcb_generate_id(x());
        xcb_create_pixmap(x(), 1, nothing, root, 1, 1);
        const xcb_gcontext_t clear = xcb_generate_id(x());
        const uint32_t zero = 0;
        xcb_create_gc(x(), clear, nothing, XCB_GC_FOREGROUND, &zero);
        const xcb_rectangle_t all{0, 0, 1, 1};
        xcb_poly_fill_rectangle(x(), nothing, clear, 1, &all);
        const xcb_cursor_t pointer = xcb_generate_id(x());
        xcb_create_cursor(x(), pointer, nothing, nothing, 0, 0, 0, 0, 0, 0, 0, 0);
        return pointer;
    }

    std::unique_ptr<xcb_connection_t, decltype(&xcb_disconnect)> connection_;
    uint8_t depth_ = 0;
    xcb_gcontext_t gc_ = 0;
};
