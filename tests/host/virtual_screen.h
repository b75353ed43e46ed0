#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/randr.h>
#include <xcb/xcb.h>

extern char** environ;

/** A virtual X server of its own for a test, which DISPLAY names while it lives, and a client to draw with.
 */
class VirtualScreen {
public:
    VirtualScreen(uint16_t width, uint16_t height)
    {
        int number[2];
        if (pipe(number) != 0)
            return;
        const std::string size = std::to_string(width) + "x" + std::to_string(height) + "x24";
        const std::string fd = std::to_string(number[1]);
        const char* arguments[] = {"Xvfb",       "-displayfd", fd.c_str(), "-screen",  "0",
                                   size.c_str(), "-nolisten",  "tcp",      "-noreset", nullptr};
        if (posix_spawnp(&pid_, "Xvfb", nullptr, nullptr, const_cast<char**>(arguments), environ) != 0)
            pid_ = 0;
        close(number[1]);
        const std::string display = ":" + first_line(number[0]);
        close(number[0]);
        setenv("DISPLAY", display.c_str(), 1);
        client_ = xcb_connect(display.c_str(), nullptr);
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

    bool ready() const { return pid_ && !xcb_connection_has_error(client_); }

    void kill_server()
    {
        if (pid_ <= 0)
            return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = 0;
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
    static std::string first_line(int fd)
    {
        constexpr int limit_ms = 20000;
        std::string line;
        pollfd readable{fd, POLLIN, 0};
        for (char c = 0; poll(&readable, 1, limit_ms) > 0 && read(fd, &c, 1) == 1 && c != '\n';)
            line += c;
        return line;
    }
    void finish() { std::free(xcb_get_input_focus_reply(client_, xcb_get_input_focus(client_), nullptr)); }

    pid_t pid_ = 0;
    xcb_connection_t* client_ = nullptr;
    xcb_window_t root_ = 0;
    xcb_gcontext_t gc_ = 0;
};
