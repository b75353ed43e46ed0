#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

/**
 * Scenes as screens show them, drawn without a display and the same on every machine: text that is
 * typed, windows that are dragged, a page and a terminal that scroll, a video in a window, a screen
 * at rest.
 */
class ScreenScene {
public:
    static constexpr int width = 1280;
    static constexpr int height = 720;
    static constexpr std::array names{"typing",   "windows", "scrolling",
                                      "terminal", "video",   "still"};

    explicit ScreenScene(std::string name) : name_(std::move(name)), pixels_(width * height)
    {
        for (auto& glyph : glyphs_)
            draw_glyph(glyph);
        for (int i = 0; i < 4096; ++i)
            text_.push_back(random_() % 6 == 0 ? 0 : static_cast<uint8_t>(1 + random_() % 62));
    }

    /** Draws picture `number`. Returns its pixels, 0xRRGGBB, in lines of `width`. */
    const uint32_t* draw(int number)
    {
        if (name_ == "typing")
            typing(number);
        else if (name_ == "windows")
            windows(number);
        else if (name_ == "scrolling")
            page(0xffffff, 0x202020, -(number * 4 + number * number / 30), 0);
        else if (name_ == "terminal")
            page(0x101418, 0x80d080, -(number / 3 * 2 * line_height), 1);
        else
            video(name_ == "video" ? number : 0);
        return pixels_.data();
    }

private:
    static constexpr int glyph_width = 8;
    static constexpr int glyph_height = 16;
    static constexpr int line_height = 18;
    // ink coverage of each pixel
    using Glyph = std::array<uint8_t, glyph_width * glyph_height>;

    // A letter is two to four strokes between points of a grid, with smooth edges as fonts have
    // them.
    void draw_glyph(Glyph& glyph)
    {
        const auto point = [&](int columns, int step) {
            return 1.5 + static_cast<double>(random_() % static_cast<uint32_t>(columns)) * step;
        };
        glyph.fill(0);
        for (uint32_t stroke = 0, count = 2 + random_() % 3; stroke < count; ++stroke) {
            const double x0 = point(3, 2), y0 = 2 + point(4, 3), x1 = point(3, 2),
                         y1 = 2 + point(4, 3);
            const double length = std::max(std::hypot(x1 - x0, y1 - y0), 0.1);
            for (int y = 0; y < glyph_height; ++y)
                for (int x = 0; x < glyph_width; ++x) {
                    const double along = std::clamp(
                        ((x - x0) * (x1 - x0) + (y - y0) * (y1 - y0)) / length, 0.0, length);
                    const double away = std::hypot(x - x0 - along * (x1 - x0) / length,
                                                   y - y0 - along * (y1 - y0) / length);
                    uint8_t& ink = glyph[static_cast<size_t>(y * glyph_width + x)];
                    ink =
                        std::max(ink, static_cast<uint8_t>(255 * std::clamp(1.3 - away, 0.0, 1.0)));
                }
        }
    }

    void set(int x, int y, uint32_t colour)
    {
        if (x >= 0 && x < width && y >= 0 && y < height)
            pixels_[static_cast<size_t>(y * width + x)] = colour;
    }

    void fill(int left, int top, int columns, int lines, uint32_t colour)
    {
        for (int y = std::max(top, 0); y < std::min(top + lines, height); ++y)
            for (int x = std::max(left, 0); x < std::min(left + columns, width); ++x)
                set(x, y, colour);
    }

    void letter(int left, int top, uint8_t which, uint32_t ink_colour)
    {
        for (int y = 0; y < glyph_height; ++y)
            for (int x = 0; x < glyph_width; ++x) {
                const uint32_t ink = glyphs_[which][static_cast<size_t>(y * glyph_width + x)];
                if (!ink || left + x < 0 || left + x >= width || top + y < 0 || top + y >= height)
                    continue;
                uint32_t mixed = 0;
                for (int shift = 0; shift < 24; shift += 8) {
                    const uint32_t under =
                        pixels_[static_cast<size_t>((top + y) * width + left + x)] >> shift & 255;
                    const uint32_t over = ink_colour >> shift & 255;
                    mixed |= (under * (255 - ink) + over * ink) / 255 << shift;
                }
                set(left + x, top + y, mixed);
            }
    }

    void text(int left, int top, int columns, int first, int count, uint32_t ink)
    {
        for (int i = 0; i < count; ++i)
            if (const uint8_t which = text_[static_cast<size_t>(first + i) % text_.size()])
                letter(left + i % columns * glyph_width, top + i / columns * line_height, which,
                       ink);
    }

    void page(uint32_t paper, uint32_t ink, int offset, int kind)
    {
        fill(0, 0, width, height, paper);
        const int first_line = -offset / line_height;
        for (int line = first_line; line < first_line + height / line_height + 2; ++line) {
            const int length = kind == 0 && line % 9 == 8 ? 0 : 70 + line * 37 % 70;
            text(40, offset + line * line_height, 150, line * 131, length,
                 kind == 1 && line % 4 == 0 ? 0xe0a040 : ink);
        }
    }

    void window(int left, int top, int columns, int lines, int first)
    {
        fill(left, top, columns, lines, 0x707880);
        fill(left + 1, top + 25, columns - 2, lines - 26, 0xfafafa);
        for (int y = 1; y < 25; ++y) // a title bar with a gradient
            fill(left + 1, top + y, columns - 2, 1,
                 0x5080c0u + static_cast<uint32_t>(y) * 0x020202u);
        text(left + 10, top + 5, 40, first, 24, 0xffffff);
        text(left + 12, top + 36, (columns - 24) / glyph_width, first,
             (columns - 24) / glyph_width * ((lines - 60) / line_height), 0x303030);
    }

    void desktop()
    {
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                set(x, y,
                    static_cast<uint32_t>(40 + y / 9) | static_cast<uint32_t>(60 + x / 16) << 8 |
                        0x300000);
        fill(0, height - 32, width, 32, 0x282c30);
        text(20, height - 24, 60, 900, 40, 0xd0d0d0);
    }

    void typing(int number)
    {
        page(0xffffff, 0x202020, 0, 0);
        fill(60, 300, 800, 260, 0xf4f4f8);
        text(70, 310, 98, 2000, 40 + number, 0x000080);
        if (number / 15 % 2 == 0)
            fill(70 + (40 + number) % 98 * glyph_width, 310 + (40 + number) / 98 * line_height, 2,
                 16, 0);
    }

    void windows(int number)
    {
        desktop();
        window(60, 50, 560, 420, 100);
        window(700, 90, 500, 340, 1400);
        window(150 + number * 5, 160 + static_cast<int>(60 * std::sin(number * 0.07)), 440, 360,
               2500);
        if (number / 20 % 2) // a menu
            window(700, 116, 180, 220, 3000);
    }

    // Soft shapes that pan by fractions of a pixel, an edge that moves the other way, and grain.
    void video(int number)
    {
        desktop();
        window(60, 60, 480, 560, 600);
        fill(560, 120, 660, 400, 0x181818);
        std::minstd_rand grain(static_cast<uint32_t>(number) + 7);
        const double pan = number * 1.3;
        for (int y = 0; y < 360; ++y)
            for (int x = 0; x < 640; ++x) {
                const double u = x + pan, v = y + 0.4 * pan;
                double light = 120 + 40 * std::sin(u * 0.021) * std::cos(v * 0.033) +
                               22 * std::sin(u * 0.13 + v * 0.07) +
                               12 * std::sin(v * 0.31 - u * 0.05);
                if (std::hypot(x - 320 - 200 * std::sin(number * 0.05), y - 180) < 70)
                    light = 200 + 20 * std::sin((x + y) * 0.2);
                light += static_cast<double>(grain() % 7) - 3;
                const auto level = static_cast<uint32_t>(std::clamp(light, 0.0, 255.0));
                set(570 + x, 140 + y, level | level * 7 / 8 << 8 | level * 3 / 4 << 16);
            }
    }

    std::string name_;
    std::vector<uint32_t> pixels_;
    std::minstd_rand random_{20};
    std::array<Glyph, 64> glyphs_;
    std::vector<uint8_t> text_;
};
