#pragma once

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <xcb/randr.h>
#include <xcb/xcb.h>

/** A virtual X server of its own for a test, which DISPLAY names while it lives, and a client to draw with.
 */
class VirtualScreen {
public:
    VirtualScreen(uint16_t width, uint16_t height)
    {
        const std::string size = std::to_string(width) + "x" + std::to_string(height);
        // The shell tells its process id and becomes the server, which tells the display's number.
        const std::string command =
            "echo $$; exec Xvfb -displayfd 1 -screen 0 " + size + "x24 -nolisten tcp -noreset 2>/dev/null";
        int number = 0;
        server_ = popen(command.c_str(), "re");
        if (!server_ || fscanf(server_, "%d %d", &pid_, &number) != 2)
            return;
        setenv("DISPLAY", (":" + std::to_string(number)).c_str(), 1);
        client_ = xcb_connect(nullptr, nullptr);
        if (!ready())
            return;
        root_ = xcb_setup_roots_iterator(xcb_get_setup(client_)).data->root;
        gc_ = xcb_generate_id(client_);
        xcb_create_gc(client_, gc_, root_, 0, nullptr);
    }
    ~VirtualScreen()
    {
        xcb_disconnect(client_);
        kill_server();
        unsetenv("DISPLAY");
    }
    VirtualScreen(const VirtualScreen&) = delete;
    VirtualScreen& operator=(const VirtualScreen&) = delete;

    bool ready() const { return client_ && !xcb_connection_has_error(client_); }

    void kill_server()
    {
        if (!server_)
            return;
        kill(pid_, SIGKILL);
        pclose(server_);
        server_ = nullptr;
    }
    /** Has the server answer nothing, until it is thawed. */
    void freeze() { kill(pid_, SIGSTOP); }
    void thaw() { kill(pid_, SIGCONT); }
    /** Fills a rectangle with a colour 0xRRGGBB; it is on the screen when this returns, as after all below.
     */
    void fill(uint32_t colour, xcb_rectangle_t rectangle)
    {
        xcb_change_gc(client_, gc_, XCB_GC_FOREGROUND, &colour);
        xcb_poly_fill_rectangle(client_, root_, gc_, 1, &rectangle);
        finish();
    }
    /** Puts a white pointer of 16x16 pixels with its top left there. */
    void show_pointer(int16_t x, int16_t y)
    {
        const xcb_pixmap_t shape = xcb_generate_id(client_);
        xcb_create_pixmap(client_, 1, shape, root_, 16, 16);
        const xcb_gcontext_t gc = xcb_generate_id(client_);
        const uint32_t ones = 1;
        xcb_create_gc(client_, gc, shape, XCB_GC_FOREGROUND, &ones);
        const xcb_rectangle_t all{0, 0, 16, 16};
        xcb_poly_fill_rectangle(client_, shape, gc, 1, &all);
        const xcb_cursor_t cursor = xcb_generate_id(client_);
        xcb_create_cursor(client_, cursor, shape, shape, 0xFFFF, 0xFFFF, 0xFFFF, 0, 0, 0, 0, 0);
        xcb_change_window_attributes(client_, root_, XCB_CW_CURSOR, &cursor);
        xcb_warp_pointer(client_, XCB_NONE, root_, 0, 0, 0, 0, x, y);
        finish();
    }
    /** Changes the screen's size, at most to that at the start. */
    void resize(uint16_t width, uint16_t height)
    {
        auto* resources = xcb_randr_get_screen_resources_reply(
            client_, xcb_randr_get_screen_resources(client_, root_), nullptr);
        const xcb_randr_crtc_t crtc = *xcb_randr_get_screen_resources_crtcs(resources);
        std::free(xcb_randr_set_crtc_config_reply(
            client_,
            xcb_randr_set_crtc_config(client_, crtc, 0, 0, 0, 0, XCB_NONE, XCB_RANDR_ROTATION_ROTATE_0, 0,
                                      nullptr),
            nullptr));
        std::free(resources);
        xcb_randr_set_screen_size(client_, root_, width, height, width, height);
        finish();
    }

private:
    void finish() { std::free(xcb_get_input_focus_reply(client_, xcb_get_input_focus(client_), nullptr)); }

    FILE* server_ = nullptr;
    int pid_ = 0;
    xcb_connection_t* client_ = nullptr;
    xcb_window_t root_ = 0;
    xcb_gcontext_t gc_ = 0;
};
