#include "machine/display.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <sys/auxv.h>
#include <thread>
#include <xcb/randr.h>
#include <xcb/shm.h>

#include "process/messages.h"
#include <common/x11_screen.h>

namespace client {
namespace {

constexpr Size least = common::least_picture_size;
constexpr Size greatest = common::greatest_picture_size;

uint32_t even(double value)
{
    return static_cast<uint32_t>(value) & ~1u;
}

template <typename T> using Reply = std::unique_ptr<T, decltype(&std::free)>;

template <typename T> Reply<T> owned(T* reply)
{
    return Reply<T>(reply, std::free);
}

double rate_of(const xcb_randr_mode_info_t& mode)
{
    const double pixels = double(mode.htotal) * mode.vtotal;
    return pixels > 0 ? mode.dot_clock / pixels : 0;
}

/** The refresh rate of the first active output; 0 if there is none. */
double refresh_rate(xcb_connection_t* connection, xcb_window_t root)
{
    const auto* extension = xcb_get_extension_data(connection, &xcb_randr_id);
    if (!extension || !extension->present)
        return 0;
    const auto resources = owned(xcb_randr_get_screen_resources_current_reply(
        connection, xcb_randr_get_screen_resources_current(connection, root), nullptr));
    if (!resources ||
        !common::holds_behind(*resources, uint64_t{4} * resources->num_crtcs +
                                              uint64_t{4} * resources->num_outputs +
                                              sizeof(xcb_randr_mode_info_t) * resources->num_modes))
        return 0;
    const auto* crtcs = xcb_randr_get_screen_resources_current_crtcs(resources.get());
    const auto* modes = xcb_randr_get_screen_resources_current_modes(resources.get());
    for (int i = 0; i < resources->num_crtcs; ++i) {
        const auto crtc = owned(xcb_randr_get_crtc_info_reply(
            connection, xcb_randr_get_crtc_info(connection, crtcs[i], XCB_CURRENT_TIME), nullptr));
        const auto* end = modes + resources->num_modes;
        const auto* mode = std::find_if(modes, end, [&](const auto& m) {
            return crtc && crtc->mode == m.id && rate_of(m) > 0;
        });
        if (mode != end)
            return rate_of(*mode);
    }
    return 0;
}

/** A display, and the part of it to capture. */
struct Asked {
    DisplayInfo display;
    common::LocatedPart part;
};

/** @param part to look for; nullopt lists the monitors */
std::optional<Asked> ask(const std::string& name, const std::optional<common::ScreenPart>& part)
{
    int number = 0;
    const std::unique_ptr<xcb_connection_t, decltype(&xcb_disconnect)> connection(
        xcb_connect(name.empty() ? nullptr : name.c_str(), &number), xcb_disconnect);
    if (xcb_connection_has_error(connection.get()))
        return std::nullopt;
    const xcb_screen_t* screen = common::find_screen(*xcb_get_setup(connection.get()), number);
    if (!screen)
        return std::nullopt;
    const xcb_setup_t& server = *xcb_get_setup(connection.get());
    const auto* shm = xcb_get_extension_data(connection.get(), &xcb_shm_id);
    DisplayInfo display{.name = name,
                        .size = {screen->width_in_pixels, screen->height_in_pixels},
                        .refresh_hz = refresh_rate(connection.get(), screen->root),
                        .shared_memory = shm && shm->present,
                        .problem = common::pixel_format(server, *screen)
                                       ? ""
                                       : common::unknown_pixel_format(server, *screen)};
    Asked asked{std::move(display), {}};
    if (!part)
        asked.display.monitors = common::find_monitors(connection.get(), screen->root);
    else if (!part->is_whole())
        asked.part = common::locate_part(connection.get(), *screen, *part);
    return asked;
}

/** The result of the asking thread; shared, because it may come after the caller has given up. */
struct Answer {
    std::mutex mutex;
    std::condition_variable arrived;
    bool there = false;
    std::optional<Asked> asked;
};

std::string environment(const char* name)
{
    const char* value = secure_getenv(name);
    return value ? value : "";
}

/** The name of the captured display, for messages about its end. */
std::string& captured_name()
{
    static std::string name = "the display";
    return name;
}

void name_captured(const std::string& name)
{
    captured_name() = name;
}

// A stopped server accepts the connection and never answers, and xcb has no time limit. So a thread
// asks, and is abandoned if it is too slow.
std::optional<Asked> ask_in_time(const std::string& name,
                                 const std::optional<common::ScreenPart>& part)
{
    const auto answer = std::make_shared<Answer>();
    std::thread([answer, name, part] {
        auto asked = ask(name, part);
        const std::lock_guard lock(answer->mutex);
        answer->asked = std::move(asked);
        answer->there = true;
        answer->arrived.notify_one();
    }).detach();
    std::unique_lock lock(answer->mutex);
    // In slices: after SIGSTOP and SIGCONT the thread still has its turn before the time is up.
    constexpr auto slice = std::chrono::milliseconds(50);
    for (int left = std::chrono::seconds(3) / slice; left > 0 && !answer->there; --left)
        answer->arrived.wait_for(lock, slice, [&] { return answer->there; });
    return answer->asked;
}

common::ScreenPart part_to_capture()
{
    std::string problem;
    auto part = common::screen_part_of_environment(problem);
    if (!part)
        throw Failure("cannot capture the screen: " + problem);
    return *part;
}

/** Reduces a display to that part of it. Throws Failure. */
void narrow(DisplayInfo& display, common::ScreenPart part, const common::LocatedPart& located)
{
    if (part.is_whole())
        return;
    if (!located.problem.empty())
        throw Failure("cannot capture " + located.name + " of the display '" + display.name +
                      "': " + located.problem);
    if (located.clipped)
        print_message(located.name + " reaches beyond the screen: only " +
                      common::region_text(located.region) + " of it is captured");
    if (part.region) {
        part.region = located.region;
        part.monitor.clear();
    }
    if (part.window)
        part.window = located.window;
    set_screen_part(part);
    name_captured(located.name + " of " + captured_name());
    display.name = located.name;
    display.size = {located.region.size.width, located.region.size.height};
}

} // namespace

std::string size_problem(Size size)
{
    if (size.width % 2 != 0 || size.height % 2 != 0)
        return "width and height must be even, because colour is kept for blocks of 2x2 pixels";
    if (size.width < least.width || size.height < least.height || size.width > greatest.width ||
        size.height > greatest.height)
        return format_text("sizes go from %ux%u to %ux%u", least.width, least.height,
                           greatest.width, greatest.height);
    return {};
}

Size size_for_display(Size display)
{
    const double scale = std::min({1.0, double(greatest.width) / std::max(1u, display.width),
                                   double(greatest.height) / std::max(1u, display.height)});
    return {std::max(least.width, even(display.width * scale)),
            std::max(least.height, even(display.height * scale))};
}

std::optional<DisplayInfo> probe_display(const std::string& name)
{
    const auto asked = ask_in_time(name, std::nullopt);
    return asked ? std::optional(asked->display) : std::nullopt;
}

void set_screen_part(const common::ScreenPart& part)
{
    for (const char* name : {"ZU3_REGION", "ZU3_MONITOR", "ZU3_WINDOW"})
        unsetenv(name);
    if (part.region)
        setenv("ZU3_REGION", common::region_text(*part.region).c_str(), 1);
    if (!part.monitor.empty())
        setenv("ZU3_MONITOR", part.monitor.c_str(), 1);
    if (part.window == common::ScreenPart::active_window)
        setenv("ZU3_WINDOW", "active", 1);
    else if (part.window)
        setenv("ZU3_WINDOW", std::to_string(*part.window).c_str(), 1);
}

DisplayInfo display_to_capture()
{
    const HostScreen screen = open_screen().value_or(HostScreen{.source = ZU3_HOST_SCREEN_X11});
    if (screen.source == ZU3_HOST_SCREEN_X11)
        return x11_display_to_capture();
    if (screen.source == ZU3_HOST_SCREEN_TESTCARD && !part_to_capture().is_whole())
        throw Failure(
            "cannot capture a part of the test card: it has no regions, monitors or windows");
    if (screen.source == ZU3_HOST_SCREEN_TESTCARD)
        return {.name = "the test card", .size = {1280, 720}};
    if (!screen.problem.empty())
        throw Failure("cannot capture " + (screen.width ? screen.name : "the screen") + ": " +
                      screen.problem);
    name_captured(screen.name);
    return {.name = screen.name,
            .size = {screen.width, screen.height},
            .refresh_hz = screen.refresh_hz,
            .shared_memory = true};
}

DisplayInfo x11_display_to_capture()
{
    const common::ScreenPart part = part_to_capture();
    const std::string name = environment("DISPLAY");
    if (name.empty() && getauxval(AT_SECURE))
        throw Failure(
            "cannot reach a display: this program has privileges (set-uid, set-gid or file capabilities) and therefore ignores DISPLAY; remove them");
    if (name.empty())
        throw Failure(
            "cannot reach a display: DISPLAY is not set; name one with --display (see 'screenrecord devices'), or set ZU3_DISPLAY=testcard for a moving test card");
    auto asked = ask_in_time(name, part);
    if (!asked)
        throw Failure(
            "cannot reach the display '" + name +
            "' (DISPLAY): there is no X server of that name, or it does not answer or refuses access; 'screenrecord devices' lists the others");
    DisplayInfo& display = asked->display;
    if (!display.problem.empty())
        throw Failure("cannot capture the display '" + name + "' (DISPLAY): " + display.problem);
    name_captured("the display " + name + " (DISPLAY)");
    narrow(display, part, asked->part);
    return display;
}

Size size_to_capture(const DisplayInfo& display, const std::optional<Size>& asked)
{
    const Size size = asked.value_or(size_for_display(display.size));
    const Size whole = display.size;
    const bool column = whole.width == size.width + 1, row = whole.height == size.height + 1;
    // not scaled down
    const bool shown = whole.width <= size.width + 1 && whole.height <= size.height + 1;
    if (shown && (column || row))
        print_message(format_text("%s has %ux%u pixels, and sizes are even: its last %s left out",
                                  display.name.c_str(), whole.width, whole.height,
                                  column && row ? "column and its last row are"
                                  : column      ? "column is"
                                                : "row is"));
    return size;
}

std::optional<std::string> display_problem(const zu3_host_statistics_t& since_start,
                                           const std::string& purpose)
{
    // A slow display is not lost, but one without pictures for this long ends a recording.
    constexpr uint32_t longest_silence_ms = 60'000;
    const std::string ended = purpose + " " + captured_name() + " any more: ";
    if (since_start.display_lost)
        return ended + "it went away";
    if (since_start.display_silent_ms >= longest_silence_ms)
        return ended + "it has not answered for a minute";
    return std::nullopt;
}

std::vector<std::string> known_displays()
{
    std::vector<std::string> names;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp/.X11-unix", none)) {
        const std::string file = entry.path().filename();
        if (file.size() > 1 && file[0] == 'X')
            names.push_back(":" + file.substr(1));
    }
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });
    const std::string own = environment("DISPLAY");
    if (!own.empty() && std::find(names.begin(), names.end(), own) == names.end())
        names.push_back(own);
    return names;
}

} // namespace client
