/**
 * Covers the X display of DISPLAY with moving content whose fixed parts a test can check.
 *
 * moving_screen [--fps N] [--stamps N] [--seconds N] [--noise | --pan FILE] [--static] | --check
 *
 * --fps N      pictures per second, default 30
 * --stamps N   show the time instead of the picture's number, drawn N times a second, a multiple of
 *              the fps: of the monotonic clock in units of 100 us, its lowest 32 bits
 * --seconds N  run time; default: until the display goes away or the program is killed
 * --noise      random pixels, new in every picture: the highest load for an encoder
 * --pan FILE   a part of a picture that is larger than the display (binary PPM, 8 bits): of picture
 *              n from (5 n, 3 n) on, and back from each edge
 * --static     draw one picture and leave it
 * --check      draw nothing; check that the display is reachable
 *
 * Fixed in every picture, in pixels from the top left corner (a small display cuts off the rest):
 *
 * x  64..191, y 64..191   pure red   (255, 0, 0) x 256..383, y 64..191   pure white (255, 255, 255)
 * x 448..575, y 64..191   pure black (0, 0, 0) x  64..575, y 224..239  the picture's number: 32
 * squares of 16 x 16, lowest bit at the left, white = 1; on black from x 48, y 208 to x 591, y 255
 *
 * Prints "ready" once the first picture is on the screen. Exit code 1 if the display is
 * unreachable.
 */
#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <random>
#include <string_view>
#include <vector>

#include "x_screen.h"

namespace {

struct Options {
    int fps = 30;
    int stamps = 0;
    int seconds = 0;
    bool noise = false;
    const char* pan = nullptr;
    bool still = false;
    bool check = false;
};

bool parse(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--noise")
            options.noise = true;
        else if (argument == "--static")
            options.still = true;
        else if (argument == "--check")
            options.check = true;
        else if (argument == "--pan" && i + 1 < argc)
            options.pan = argv[++i];
        else if (argument == "--fps" && i + 1 < argc)
            options.fps = atoi(argv[++i]);
        else if (argument == "--stamps" && i + 1 < argc)
            options.stamps = atoi(argv[++i]);
        else if (argument == "--seconds" && i + 1 < argc)
            options.seconds = atoi(argv[++i]);
        else
            return false;
    }
    return options.fps > 0 && options.seconds >= 0 && options.stamps >= 0 &&
           options.stamps % options.fps == 0;
}

/** The pixels of a binary PPM file, 0xRRGGBB; none if it cannot be read. */
struct Photograph {
    explicit Photograph(const char* path)
    {
        const std::unique_ptr<FILE, decltype(&fclose)> file(fopen(path, "rb"), fclose);
        if (!file || fscanf(file.get(), "P6 %hu %hu 255%*c", &width, &height) != 2)
            return;
        std::vector<uint8_t> bytes(size_t{3} * width * height);
        if (fread(bytes.data(), 1, bytes.size(), file.get()) != bytes.size())
            return;
        for (size_t at = 0; at < bytes.size(); at += 3)
            pixels.push_back(uint32_t{bytes[at]} << 16 | uint32_t{bytes[at + 1]} << 8 |
                             bytes[at + 2]);
    }
    uint16_t width = 0;
    uint16_t height = 0;
    std::vector<uint32_t> pixels;
};

class MovingScreen {
public:
    MovingScreen(XScreen& screen, bool noise)
        : screen_(screen), picture_(screen.new_pixmap(screen.width, screen.height))
    {
        if (noise)
            for (xcb_pixmap_t& pixmap : noise_)
                pixmap = new_noise();
    }
    /** @param photograph at least as large as the screen */
    MovingScreen(XScreen& screen, const Photograph& photograph) : MovingScreen(screen, false)
    {
        photograph_ = screen.new_pixmap(photograph.width, photograph.height);
        screen.put(photograph_, photograph.pixels, photograph.width);
        room_x_ = photograph.width - screen.width;
        room_y_ = photograph.height - screen.height;
    }

    /**
     * Draws picture `number` out of sight and shows it at once, so that no capture sees half of it.
     */
    void show(uint32_t number, uint32_t shown_number)
    {
        if (noise_[0])
            draw_noise(number);
        else if (photograph_)
            draw_photograph(number);
        else
            draw_shapes(number);
        draw_patches();
        draw_number(shown_number);
        screen_.copy(picture_, screen_.window, 0, 0, {0, 0, screen_.width, screen_.height});
    }

    /** Shows another number in the picture that is on the screen. */
    void show_number(uint32_t number)
    {
        draw_number(number);
        screen_.copy(picture_, screen_.window, 64, 224, {64, 224, 512, 16});
    }

private:
    static constexpr uint16_t noise_margin = 256;

    xcb_pixmap_t new_noise()
    {
        const auto width = static_cast<uint16_t>(screen_.width + noise_margin);
        const auto height = static_cast<uint16_t>(screen_.height + noise_margin);
        std::vector<uint32_t> pixels(size_t{width} * height);
        std::generate(pixels.begin(), pixels.end(),
                      [this] { return static_cast<uint32_t>(random_()) & 0xffffff; });
        const xcb_pixmap_t pixmap = screen_.new_pixmap(width, height);
        screen_.put(pixmap, pixels, width);
        return pixmap;
    }

    // The noise is already in the server: a picture costs a copy from a random place.
    void draw_noise(uint32_t number)
    {
        screen_.copy(noise_[number % std::size(noise_)], picture_,
                     static_cast<int16_t>(random_() % noise_margin),
                     static_cast<int16_t>(random_() % noise_margin),
                     {0, 0, screen_.width, screen_.height});
    }

    /** Forward by `step` a picture, and back from the end of the room. */
    static int16_t place(uint32_t number, int step, int room)
    {
        const int way = static_cast<int>(number) * step % std::max(2 * room, 1);
        return static_cast<int16_t>(std::min(way, 2 * room - way));
    }

    void draw_photograph(uint32_t number)
    {
        screen_.copy(photograph_, picture_, place(number, 5, room_x_), place(number, 3, room_y_),
                     {0, 0, screen_.width, screen_.height});
    }

    void draw_shapes(uint32_t number)
    {
        screen_.fill(picture_, 0x304050, {0, 0, screen_.width, screen_.height});
        const int bar_pitch = 120;
        const int phase = static_cast<int>(number * 4 % bar_pitch);
        for (int x = phase - bar_pitch, i = 0; x < screen_.width; x += bar_pitch, ++i)
            screen_.fill(picture_, 0x208040u + static_cast<uint32_t>(i) * 0x0f1b2du % 0x606060u,
                         {static_cast<int16_t>(x), 272, 60,
                          static_cast<uint16_t>(std::max(screen_.height - 272, 1))});
        const int range = std::max(screen_.width - 96, 1);
        const int travelled = static_cast<int>(number * 7 % static_cast<uint32_t>(2 * range));
        const auto x = static_cast<int16_t>(travelled < range ? travelled : 2 * range - travelled);
        screen_.fill(picture_, 0xe0c020,
                     {x, static_cast<int16_t>(screen_.height / 2 + 64), 96, 96});
    }

    void draw_patches()
    {
        screen_.fill(picture_, 0xff0000, {64, 64, 128, 128});
        screen_.fill(picture_, 0xffffff, {256, 64, 128, 128});
        screen_.fill(picture_, 0x000000, {448, 64, 128, 128});
    }

    void draw_number(uint32_t number)
    {
        screen_.fill(picture_, 0x000000, {48, 208, 544, 48});
        for (int bit = 0; bit < 32; ++bit)
            if (number >> bit & 1)
                screen_.fill(picture_, 0xffffff,
                             {static_cast<int16_t>(64 + 16 * bit), 224, 16, 16});
    }

    XScreen& screen_;
    xcb_pixmap_t picture_;
    std::minstd_rand random_{20};
    xcb_pixmap_t noise_[4] = {};
    xcb_pixmap_t photograph_ = 0;
    int room_x_ = 0;
    int room_y_ = 0;
};

/** Nullopt if the photograph of the options cannot be shown. */
std::optional<MovingScreen> make_content(XScreen& screen, const Options& options)
{
    if (!options.pan)
        return MovingScreen(screen, options.noise);
    const Photograph photograph(options.pan);
    if (photograph.pixels.empty() || photograph.width < screen.width ||
        photograph.height < screen.height)
        return std::nullopt;
    return MovingScreen(screen, photograph);
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parse(argc, argv, options)) {
        fprintf(stderr,
                "usage: moving_screen [--fps N] [--stamps N] [--seconds N] [--noise | --pan FILE] "
                "[--static] | --check\n");
        return 2;
    }
    XScreen screen;
    if (!screen.alive()) {
        fprintf(stderr, "moving_screen: the display of DISPLAY cannot be reached\n");
        return 1;
    }
    if (options.check)
        return 0;
    auto content = make_content(screen, options);
    if (!content) {
        fprintf(stderr, "moving_screen: %s is no PPM file as large as the display\n", options.pan);
        return 1;
    }
    screen.show();
    content->show(0, 0);
    screen.finish();
    puts("ready");
    fflush(stdout);

    const int64_t start = XScreen::now_ns();
    const int64_t end =
        options.seconds ? start + options.seconds * int64_t{1'000'000'000} : INT64_MAX;
    if (options.still) {
        screen.wait_until(end);
        return 0;
    }
    const int rate = options.stamps ? options.stamps : options.fps;
    const auto per_picture = static_cast<uint32_t>(rate / options.fps);
    for (uint32_t number = 1;; ++number) {
        const int64_t due = start + number * int64_t{1'000'000'000} / rate;
        if (due >= end || !screen.wait_until(due))
            return 0;
        const auto shown =
            options.stamps ? static_cast<uint32_t>(XScreen::now_ns() / 100'000) : number;
        if (number % per_picture == 0)
            content->show(number / per_picture, shown);
        else
            content->show_number(shown);
        screen.flush();
    }
}
