/**
 * Covers the first output of the Wayland session with the patches and the picture number of
 * moving_screen.cpp, in physical pixels, so that the same judges can read them.
 *
 * wayland_screen [--fps N] [--stamps] [--scale N] [--static] [--window]
 *
 * --fps N     pictures per second, default 30
 * --stamps    show the time instead of the picture's number: of the monotonic clock in units of
 *             100 us, its lowest 32 bits
 * --scale N   physical pixels per logical pixel, default 1
 * --static    draw one picture and leave it
 * --window    be a window of 400x300 logical pixels instead of covering the output
 *
 * Prints "ready" once the compositor has answered after the first picture. Ends with the
 * compositor. Exit code 1 if that cannot be reached.
 */
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <poll.h>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
#include <wayland-client.h>

namespace {

// The used part of xdg-shell.
extern const wl_interface shell_surface_interface;
extern const wl_interface toplevel_interface;
const wl_interface* nothing[4] = {};
const wl_interface* new_shell_surface[] = {&shell_surface_interface, &wl_surface_interface};
const wl_interface* new_toplevel[] = {&toplevel_interface};
const wl_message shell_requests[] = {{"destroy", "", nothing},
                                     {"create_positioner", "n", nothing},
                                     {"get_xdg_surface", "no", new_shell_surface},
                                     {"pong", "u", nothing}};
const wl_message shell_events[] = {{"ping", "u", nothing}};
const wl_message surface_requests[] = {{"destroy", "", nothing},
                                       {"get_toplevel", "n", new_toplevel},
                                       {"get_popup", "n?oo", nothing},
                                       {"set_window_geometry", "iiii", nothing},
                                       {"ack_configure", "u", nothing}};
const wl_message surface_events[] = {{"configure", "u", nothing}};
// of its requests, only the number of set_fullscreen counts
constexpr uint32_t set_fullscreen = 11;
const wl_message toplevel_requests[] = {
    {"destroy", "", nothing},          {"set_parent", "?o", nothing},
    {"set_title", "s", nothing},       {"set_app_id", "s", nothing},
    {"show_window_menu", "", nothing}, {"move", "ou", nothing},
    {"resize", "ouu", nothing},        {"set_max_size", "ii", nothing},
    {"set_min_size", "ii", nothing},   {"set_maximized", "", nothing},
    {"unset_maximized", "", nothing},  {"set_fullscreen", "?o", nothing}};
const wl_message toplevel_events[] = {{"configure", "iia", nothing}, {"close", "", nothing}};
const wl_interface shell_interface = {"xdg_wm_base", 1, 4, shell_requests, 1, shell_events};
const wl_interface shell_surface_interface = {"xdg_surface",    1, 5,
                                              surface_requests, 1, surface_events};
const wl_interface toplevel_interface = {"xdg_toplevel",    1, 12,
                                         toplevel_requests, 2, toplevel_events};

int64_t now_ns()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

/** Pixels that the compositor reads. */
struct Buffer {
    wl_buffer* proxy = nullptr;
    uint32_t* pixels = nullptr;
    bool busy = false;
};

class WaylandScreen {
public:
    explicit WaylandScreen(int scale) : scale_(scale), display_(wl_display_connect(nullptr)) {}

    bool open(bool as_window);
    bool alive() const { return display_ && wl_display_get_error(display_) == 0; }
    /** False when the compositor went away. */
    bool wait_until(int64_t due_ns);
    void show(uint32_t number, uint32_t shown);
    void finish() { wl_display_roundtrip(display_); }

private:
    static WaylandScreen& self(void* data) { return *static_cast<WaylandScreen*>(data); }
    static void global(void* data, wl_registry* registry, uint32_t id, const char* name, uint32_t);
    template <typename... Arguments>
    void request(wl_proxy* object, uint32_t number, Arguments... arguments)
    {
        wl_proxy_marshal_flags(object, number, nullptr, wl_proxy_get_version(object), 0,
                               arguments...);
    }
    wl_proxy* create(wl_proxy* by, uint32_t number, const wl_interface& type, wl_surface* of)
    {
        return of ? wl_proxy_marshal_flags(by, number, &type, 1, 0, nullptr, of)
                  : wl_proxy_marshal_flags(by, number, &type, 1, 0, nullptr);
    }
    void listen();
    void resize();
    void fill(int x, int y, int columns, int lines, uint32_t colour);
    void draw(uint32_t number, uint32_t shown);
    Buffer* free_buffer();

    const int scale_;
    wl_display* const display_;
    wl_compositor* compositor_ = nullptr;
    wl_shm* shm_ = nullptr;
    wl_proxy* shell_ = nullptr;
    wl_surface* surface_ = nullptr;
    wl_proxy* shell_surface_ = nullptr;
    wl_proxy* toplevel_ = nullptr;
    static constexpr int first_size = 64;
    int wanted_width_ = first_size, wanted_height_ = first_size;
    int width_ = 0, height_ = 0;
    bool configured_ = false;
    std::array<Buffer, 3> buffers_{};
    Buffer* drawn_ = nullptr;
};

using Function = void (*)();

void WaylandScreen::global(void* data, wl_registry* registry, uint32_t id, const char* name,
                           uint32_t)
{
    WaylandScreen& screen = self(data);
    const std::string_view wanted = name;
    if (wanted == wl_compositor_interface.name)
        screen.compositor_ = static_cast<wl_compositor*>(
            wl_registry_bind(registry, id, &wl_compositor_interface, 4));
    else if (wanted == wl_shm_interface.name)
        screen.shm_ = static_cast<wl_shm*>(wl_registry_bind(registry, id, &wl_shm_interface, 1));
    else if (wanted == shell_interface.name)
        screen.shell_ = static_cast<wl_proxy*>(wl_registry_bind(registry, id, &shell_interface, 1));
}

void WaylandScreen::listen()
{
    static const auto ping = [](void* data, wl_proxy* shell, uint32_t serial) {
        self(data).request(shell, 3, serial);
    };
    static const auto configure = [](void* data, wl_proxy* surface, uint32_t serial) {
        self(data).request(surface, 4, serial);
        self(data).configured_ = true;
    };
    static const auto size = [](void* data, wl_proxy*, int32_t width, int32_t height, wl_array*) {
        if (width <= 0 || height <= 0)
            return;
        self(data).wanted_width_ = width * self(data).scale_;
        self(data).wanted_height_ = height * self(data).scale_;
    };
    static const auto close = [](void*, wl_proxy*) {};
    static Function shell_table[] = {reinterpret_cast<Function>(+ping)};
    static Function surface_table[] = {reinterpret_cast<Function>(+configure)};
    static Function toplevel_table[] = {reinterpret_cast<Function>(+size),
                                        reinterpret_cast<Function>(+close)};
    wl_proxy_add_listener(shell_, shell_table, this);
    wl_proxy_add_listener(shell_surface_, surface_table, this);
    wl_proxy_add_listener(toplevel_, toplevel_table, this);
}

bool WaylandScreen::open(bool as_window)
{
    static const wl_registry_listener listener{&WaylandScreen::global,
                                               [](void*, wl_registry*, uint32_t) {}};
    if (!alive())
        return false;
    wl_registry_add_listener(wl_display_get_registry(display_), &listener, this);
    finish();
    if (!compositor_ || !shm_ || !shell_)
        return false;
    surface_ = wl_compositor_create_surface(compositor_);
    shell_surface_ = create(shell_, 2, shell_surface_interface, surface_);
    toplevel_ = create(shell_surface_, 1, toplevel_interface, nullptr);
    listen();
    if (as_window) {
        wanted_width_ = 400 * scale_;
        wanted_height_ = 300 * scale_;
    } else {
        request(toplevel_, set_fullscreen, static_cast<void*>(nullptr));
    }
    wl_surface_commit(surface_);
    // The output's size comes once there is a window to cover it.
    while (alive() && !configured_)
        finish();
    for (show(0, 0); alive() && wanted_width_ == first_size;)
        finish();
    return alive();
}

bool WaylandScreen::wait_until(int64_t due_ns)
{
    while (alive()) {
        while (wl_display_prepare_read(display_) != 0)
            if (wl_display_dispatch_pending(display_) < 0)
                return false;
        wl_display_flush(display_);
        const int64_t left_ms = (due_ns - now_ns() + 999'999) / 1'000'000;
        pollfd ready{wl_display_get_fd(display_), POLLIN, 0};
        const int timeout = static_cast<int>(std::clamp<int64_t>(left_ms, 0, 1000));
        if (poll(&ready, 1, timeout) > 0)
            wl_display_read_events(display_);
        else
            wl_display_cancel_read(display_);
        wl_display_dispatch_pending(display_);
        if (left_ms <= 0)
            break;
    }
    return alive();
}

void WaylandScreen::resize()
{
    static const wl_buffer_listener listener{
        [](void* data, wl_buffer*) { static_cast<Buffer*>(data)->busy = false; }};
    const int line = wanted_width_ * 4, bytes = line * wanted_height_;
    const int whole = bytes * static_cast<int>(buffers_.size());
    const int fd = memfd_create("wayland_screen", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, whole) != 0)
        exit(1);
    void* const memory =
        mmap(nullptr, static_cast<size_t>(whole), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED)
        exit(1);
    wl_shm_pool* const pool = wl_shm_create_pool(shm_, fd, whole);
    for (size_t i = 0; i < buffers_.size(); ++i) {
        const int offset = bytes * static_cast<int>(i);
        if (buffers_[i].proxy)
            wl_buffer_destroy(buffers_[i].proxy);
        buffers_[i] = {wl_shm_pool_create_buffer(pool, offset, wanted_width_, wanted_height_, line,
                                                 WL_SHM_FORMAT_XRGB8888),
                       static_cast<uint32_t*>(memory) + offset / 4};
        wl_buffer_add_listener(buffers_[i].proxy, &listener, &buffers_[i]);
    }
    wl_shm_pool_destroy(pool);
    close(fd);
    width_ = wanted_width_;
    height_ = wanted_height_;
}

Buffer* WaylandScreen::free_buffer()
{
    for (Buffer& buffer : buffers_)
        if (!buffer.busy)
            return &buffer;
    return nullptr;
}

void WaylandScreen::fill(int x, int y, int columns, int lines, uint32_t colour)
{
    const int left = std::clamp(x, 0, width_), right = std::clamp(x + columns, 0, width_);
    for (int line = std::max(y, 0); line < std::min(y + lines, height_); ++line)
        std::fill(drawn_->pixels + line * width_ + left, drawn_->pixels + line * width_ + right,
                  colour);
}

void WaylandScreen::draw(uint32_t number, uint32_t shown)
{
    fill(0, 0, width_, height_, 0x304050);
    const int pitch = 120, phase = static_cast<int>(number * 4 % pitch);
    for (int x = phase - pitch, i = 0; x < width_; x += pitch, ++i)
        fill(x, 272, 60, height_ - 272,
             0x208040u + static_cast<uint32_t>(i) * 0x0f1b2du % 0x606060u);
    fill(64, 64, 128, 128, 0xff0000);
    fill(256, 64, 128, 128, 0xffffff);
    fill(448, 64, 128, 128, 0x000000);
    fill(48, 208, 544, 48, 0x000000);
    for (int bit = 0; bit < 32; ++bit)
        if (shown >> bit & 1)
            fill(64 + 16 * bit, 224, 16, 16, 0xffffff);
}

void WaylandScreen::show(uint32_t number, uint32_t shown)
{
    if (wanted_width_ != width_ || wanted_height_ != height_)
        resize();
    drawn_ = free_buffer();
    if (!drawn_)
        return;
    draw(number, shown);
    wl_surface_set_buffer_scale(surface_, scale_);
    wl_surface_attach(surface_, drawn_->proxy, 0, 0);
    wl_surface_damage_buffer(surface_, 0, 0, width_, height_);
    wl_surface_commit(surface_);
    drawn_->busy = true;
}

struct Options {
    int fps = 30;
    int scale = 1;
    bool stamps = false;
    bool still = false;
    bool window = false;
};

bool parse(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--stamps")
            options.stamps = true;
        else if (argument == "--static")
            options.still = true;
        else if (argument == "--window")
            options.window = true;
        else if (argument == "--fps" && i + 1 < argc)
            options.fps = atoi(argv[++i]);
        else if (argument == "--scale" && i + 1 < argc)
            options.scale = atoi(argv[++i]);
        else
            return false;
    }
    return options.fps > 0 && options.scale > 0;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parse(argc, argv, options)) {
        fprintf(stderr,
                "usage: wayland_screen [--fps N] [--stamps] [--scale N] [--static] [--window]\n");
        return 2;
    }
    WaylandScreen screen(options.scale);
    if (!screen.open(options.window)) {
        fprintf(stderr, "wayland_screen: the session of WAYLAND_DISPLAY cannot be reached\n");
        return 1;
    }
    screen.show(0, 0);
    screen.finish();
    puts("ready");
    fflush(stdout);
    const int64_t start = now_ns();
    constexpr int64_t second = 1'000'000'000;
    for (uint32_t number = 1;; ++number) {
        if (!screen.wait_until(options.still ? INT64_MAX / 2
                                             : start + number * second / options.fps))
            return 0;
        screen.show(number, options.stamps ? static_cast<uint32_t>(now_ns() / 100'000) : number);
    }
}
