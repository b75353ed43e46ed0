/**
 * Shows a minute of office work, repeatedly, or a moving window on the display DISPLAY.
 *
 * bench_office [--window]
 *
 * Draws 60 times a second from pixmaps on the server, as toolkits do; identical in every run:
 *
 *   second  0..9   reading: a cursor blinks, a clock runs; from 5 on the pointer moves
 *   second 10..24  typing, five keys a second
 *   second 25..29  scrolling, ten steps of three lines a second
 *   second 30..36  dragging a window
 *   second 37..46  a video in a window, 24 pictures a second
 *   second 47..59  reading; from 50 on the pointer moves
 *
 * --window: a window of a sixteenth of the screen moves, and nothing else changes. Prints "ready"
 * once the first picture is on the screen.
 */
#include <cmath>
#include <cstdio>
#include <cstring>

#include "screen_scenes.h"
#include "x_screen.h"

namespace {

constexpr int ticks_per_second = 60;
constexpr int16_t line_height = 18;
constexpr int16_t letter_width = 8;
// of ScreenScene's pages
constexpr int16_t first_letter = 40;
constexpr uint16_t bar_height = 32;

xcb_rectangle_t rectangle(int x, int y, int width, int height)
{
    return {static_cast<int16_t>(x), static_cast<int16_t>(y), static_cast<uint16_t>(width),
            static_cast<uint16_t>(height)};
}

class Office {
public:
    explicit Office(XScreen& screen)
        : screen_(screen), text_(page("typing")), terminal_(page("terminal")),
          desk_(screen.new_pixmap(screen.width, screen.height)),
          next_(screen.new_pixmap(screen.width, screen.height)),
          window_(screen.new_pixmap(screen.width, screen.height)),
          video_(screen.new_pixmap(video_width, video_height)),
          document_(rectangle(screen.width / 32, screen.height / 16,
                              std::min(screen.width * 15 / 32, 1200), screen.height * 3 / 4))
    {
        screen_.fill(desk_, 0x304050, rectangle(0, 0, screen.width, screen.height));
        screen_.fill(desk_, 0x202428,
                     rectangle(0, screen.height - bar_height, screen.width, bar_height));
        draw_document(0);
        draw_window(screen.width / 4, screen.height / 4);
        place_ =
            rectangle(screen.width * 5 / 8, screen.height / 8, screen.width / 4, screen.height / 4);
        show(rectangle(0, 0, screen.width, screen.height));
    }

    void work(int tick)
    {
        const int second = tick / ticks_per_second % 60;
        if (tick % ticks_per_second == 0)
            show_clock(tick / ticks_per_second);
        if (second >= 10 && second < 25 && tick % 12 == 0)
            type();
        else if (tick % 32 == 0)
            blink(tick % 64 == 0);
        if (second >= 25 && second < 30 && tick % 6 == 0)
            scroll();
        if (second >= 30 && second < 37)
            move_window(tick);
        if (second >= 37 && second < 47 && tick * 24 / 60 != (tick - 1) * 24 / 60)
            play(tick * 24 / 60);
        if ((second >= 5 && second < 10) || second >= 50)
            move_pointer(tick);
    }

    void move_window(int tick)
    {
        const xcb_rectangle_t before = place_;
        const double around = tick * 0.02;
        place_.x = static_cast<int16_t>(screen_.width * (0.62 + 0.11 * std::sin(around)));
        place_.y = static_cast<int16_t>(screen_.height * (0.30 + 0.25 * std::cos(1.3 * around)));
        const int left = std::min(before.x, place_.x), top = std::min(before.y, place_.y);
        show(rectangle(left, top, std::max(before.x, place_.x) + place_.width - left,
                       std::max(before.y, place_.y) + place_.height - top));
    }

private:
    static constexpr int video_width = 480;
    static constexpr int video_height = 270;

    xcb_pixmap_t page(const char* scene)
    {
        ScreenScene source(scene);
        const uint32_t* pixels = source.draw(0);
        const xcb_pixmap_t pixmap = screen_.new_pixmap(ScreenScene::width, ScreenScene::height);
        screen_.put(pixmap, {pixels, pixels + ScreenScene::width * ScreenScene::height},
                    ScreenScene::width);
        return pixmap;
    }

    void draw_document(int offset)
    {
        constexpr int page_height = 39 * line_height;
        for (int done = 0; done < document_.height;) {
            const int from = (offset + done) % page_height;
            const int lines = std::min(document_.height - done, page_height - from);
            screen_.copy(text_, desk_, 20, static_cast<int16_t>(from),
                         rectangle(document_.x, document_.y + done, document_.width, lines));
            done += lines;
        }
    }

    void draw_window(int width, int height)
    {
        screen_.fill(window_, 0x5080c0, rectangle(0, 0, width, height));
        screen_.copy(terminal_, window_, first_letter, 0, rectangle(2, 24, width - 4, height - 26));
    }

    /** Shows a part of the desk with the window above it, in one step. */
    void show(xcb_rectangle_t part)
    {
        screen_.copy(desk_, next_, part.x, part.y, part);
        screen_.copy(window_, next_, 0, 0, place_);
        screen_.copy(next_, screen_.window, part.x, part.y, part);
    }

    /** Copies a letter of the page to the place `to` of the desk. */
    void letter(int which, xcb_rectangle_t to)
    {
        screen_.copy(text_, desk_, static_cast<int16_t>(first_letter + which % 60 * letter_width),
                     static_cast<int16_t>(which / 60 % 30 * line_height), to);
    }

    xcb_rectangle_t cursor() const
    {
        const int columns = document_.width / letter_width - 8;
        return rectangle(document_.x + 20 + typed_ % columns * letter_width,
                         document_.y + (6 + typed_ / columns) * line_height, letter_width,
                         line_height);
    }

    void type()
    {
        const xcb_rectangle_t place = cursor();
        letter(typed_ * 7, place);
        show(place);
        ++typed_;
    }

    void blink(bool on)
    {
        xcb_rectangle_t place = cursor();
        place.width = 2;
        screen_.fill(desk_, on ? 0x000000 : 0xffffff, place);
        show(place);
    }

    void scroll()
    {
        draw_document(scrolled_ += 3 * line_height);
        show(document_);
    }

    void show_clock(int second)
    {
        const xcb_rectangle_t place =
            rectangle(screen_.width - 100, screen_.height - bar_height + 8, letter_width, 16);
        letter(second, place);
        show(place);
    }

    void play(int number)
    {
        std::vector<uint32_t> pixels;
        for (int y = 0; y < video_height; ++y)
            for (int x = 0; x < video_width; ++x) {
                const double u = x + number * 1.3, v = y + number * 0.5;
                const double light = 120 + 50 * std::sin(u * 0.021) * std::cos(v * 0.033) +
                                     30 * std::sin(u * 0.13 + v * 0.07) + grain_() % 7;
                pixels.push_back(static_cast<uint32_t>(light) * 0x010101u);
            }
        screen_.put(video_, pixels, video_width);
        const xcb_rectangle_t place =
            rectangle(screen_.width * 9 / 16, screen_.height / 2, video_width, video_height);
        screen_.copy(video_, desk_, 0, 0, place);
        show(place);
    }

    void move_pointer(int tick)
    {
        const xcb_rectangle_t before = pointer_;
        pointer_.x = static_cast<int16_t>(screen_.width * (0.5 + 0.4 * std::sin(tick * 0.013)));
        pointer_.y = static_cast<int16_t>(screen_.height * (0.5 + 0.4 * std::sin(tick * 0.031)));
        show(before);
        screen_.fill(screen_.window, 0x101010, pointer_);
    }

    XScreen& screen_;
    const xcb_pixmap_t text_, terminal_, desk_, next_, window_, video_;
    const xcb_rectangle_t document_;
    xcb_rectangle_t place_{};
    xcb_rectangle_t pointer_{0, 0, 10, 16};
    int typed_ = 0;
    int scrolled_ = 0;
    std::minstd_rand grain_{20};
};

} // namespace

int main(int argc, char** argv)
{
    const bool window_only = argc == 2 && std::strcmp(argv[1], "--window") == 0;
    if (argc > 1 && !window_only) {
        fputs("usage: bench_office [--window]\n", stderr);
        return 2;
    }
    XScreen screen;
    if (!screen.alive()) {
        fputs("bench_office: the display of DISPLAY cannot be reached\n", stderr);
        return 1;
    }
    screen.show();
    Office office(screen);
    screen.finish();
    puts("ready");
    fflush(stdout);
    const int64_t start = XScreen::now_ns();
    for (int tick = 1; screen.wait_until(start + tick * int64_t{1'000'000'000} / ticks_per_second);
         ++tick) {
        if (window_only)
            office.move_window(tick);
        else
            office.work(tick);
        screen.flush();
    }
}
