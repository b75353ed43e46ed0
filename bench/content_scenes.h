#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

/**
 * Full-screen scenes that are not typical of a desktop: a pan over photographs, photographs that
 * move as a whole by whole pixels, film with grain and cuts, a film with text over it, a game, a
 * fractal and an automaton. Drawn without a display, and identical on every machine.
 */
class ContentScene {
public:
    static constexpr int width = 1280;
    static constexpr int height = 720;
    static constexpr std::array names{"pan",  "motion",  "grain",    "film",
                                      "game", "fractal", "automaton"};

    explicit ContentScene(std::string name) : name_(std::move(name)), pixels_(width * height)
    {
        if (name_ == "automaton")
            for (auto& cell : cells_)
                cell = random_() % 3 == 0;
        else if (name_ != "fractal")
            paint_photograph();
    }

    /** Draws picture `number`; numbers come in order. Returns 0xRRGGBB in lines of `width`. */
    const uint32_t* draw(int number)
    {
        if (name_ == "pan")
            photograph(200 + 0.37 * number, 150 + 0.11 * number, 1);
        else if (name_ == "motion")
            photograph(5.0 * number, 3.0 * number, 1);
        else if (name_ == "grain")
            film_with_grain(number);
        else if (name_ == "film")
            film_with_text(number);
        else if (name_ == "game")
            game(number);
        else if (name_ == "fractal")
            fractal(number);
        else
            automaton();
        return pixels_.data();
    }

private:
    static constexpr int photo_width = 2048;
    static constexpr int photo_height = 1152;
    static constexpr int cell_size = 4;
    static constexpr int columns = width / cell_size;
    static constexpr int lines = height / cell_size;
    using Colour = std::array<float, 3>;

    static uint32_t packed(const Colour& colour, float add = 0)
    {
        uint32_t result = 0;
        for (const float channel : colour)
            result = result << 8 | static_cast<uint32_t>(std::clamp(channel + add, 0.0f, 255.0f));
        return result;
    }

    void set(int x, int y, uint32_t colour)
    {
        if (x >= 0 && x < width && y >= 0 && y < height)
            pixels_[static_cast<size_t>(y * width + x)] = colour;
    }

    void fill(int left, int top, int wide, int high, uint32_t colour)
    {
        for (int y = top; y < top + high; ++y)
            for (int x = left; x < left + wide; ++x)
                set(x, y, colour);
    }

    float random_unit() { return static_cast<float>(random_() % 10000) / 10000; }

    // Noise with a spectrum that falls with frequency, as in photographs, below shapes with edges.
    void paint_photograph()
    {
        photo_.assign(size_t{photo_width} * photo_height, Colour{110, 110, 110});
        for (int cell = 512; cell >= 2; cell /= 2)
            add_noise(cell, 1.6f * std::pow(static_cast<float>(cell), 0.55f));
        for (int shape = 0; shape < 90; ++shape)
            add_shape();
    }

    void add_noise(int cell, float strength)
    {
        const int wide = photo_width / cell + 2, high = photo_height / cell + 2;
        std::vector<Colour> grid(static_cast<size_t>(wide * high));
        for (Colour& value : grid) {
            const float common = random_unit() - 0.5f;
            for (float& channel : value)
                channel = strength * (1.5f * common + 0.5f * (random_unit() - 0.5f));
        }
        for (int y = 0; y < photo_height; ++y)
            for (int x = 0; x < photo_width; ++x) {
                const auto at = static_cast<size_t>(y / cell * wide + x / cell);
                const float u = static_cast<float>(x % cell) / static_cast<float>(cell),
                            v = static_cast<float>(y % cell) / static_cast<float>(cell);
                Colour& pixel = photo_[static_cast<size_t>(y * photo_width + x)];
                for (size_t c = 0; c < 3; ++c)
                    pixel[c] += (1 - v) * ((1 - u) * grid[at][c] + u * grid[at + 1][c]) +
                                v * ((1 - u) * grid[at + static_cast<size_t>(wide)][c] +
                                     u * grid[at + static_cast<size_t>(wide) + 1][c]);
            }
    }

    void add_shape()
    {
        const float x0 = random_unit() * photo_width, y0 = random_unit() * photo_height;
        const float a = 20 + random_unit() * 160, b = 20 + random_unit() * 90;
        const float turn = random_unit() * 3.14f, shade = 90 * (random_unit() - 0.5f);
        const float stripes = random_unit() * 0.6f;
        for (int y = 0; y < photo_height; ++y)
            for (int x = 0; x < photo_width; ++x) {
                const float dx = static_cast<float>(x) - x0, dy = static_cast<float>(y) - y0;
                if (std::abs(dx) + std::abs(dy) > 2 * (a + b))
                    continue;
                const float u = (dx * std::cos(turn) + dy * std::sin(turn)) / a,
                            v = (dy * std::cos(turn) - dx * std::sin(turn)) / b;
                const float inside =
                    std::clamp((1 - std::hypot(u, v)) * std::min(a, b) + 0.5f, 0.0f, 1.0f);
                for (float& channel : photo_[static_cast<size_t>(y * photo_width + x)])
                    channel += inside * (shade + 8 * std::sin(stripes * dx));
            }
    }

    Colour sample(double x, double y) const
    {
        const double wx =
            std::fmod(std::fmod(x, photo_width - 2) + photo_width - 2, photo_width - 2);
        const double wy =
            std::fmod(std::fmod(y, photo_height - 2) + photo_height - 2, photo_height - 2);
        const auto left = static_cast<size_t>(wx), top = static_cast<size_t>(wy);
        const auto u = static_cast<float>(wx - static_cast<double>(left)),
                   v = static_cast<float>(wy - static_cast<double>(top));
        const Colour* const at = &photo_[top * photo_width + left];
        Colour result;
        for (size_t c = 0; c < 3; ++c)
            result[c] = (1 - v) * ((1 - u) * at[0][c] + u * at[1][c]) +
                        v * ((1 - u) * at[photo_width][c] + u * at[photo_width + 1][c]);
        return result;
    }

    void photograph(double left, double top, double scale)
    {
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                set(x, y, packed(sample(left + x * scale, top + y * scale)));
    }

    // A cut every two and a half seconds, new grain in every picture.
    void film_with_grain(int number)
    {
        const int cut = number / 75;
        const double left = 531 * cut + 1.7 * number, top = 257 * cut + 0.6 * number;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const float grain = 3.5f * (random_unit() + random_unit() + random_unit() - 1.5f);
                set(x, y, packed(sample(left + x, top + y), 2 * grain));
            }
    }

    // A slow zoom behind two moving shapes, with black bars, a subtitle and a clock.
    void film_with_text(int number)
    {
        const double scale = 0.9 - 0.0006 * number;
        photograph(1000 - 640 * scale, 560 - 360 * scale, scale);
        for (int thing = 0; thing < 2; ++thing) {
            const double cx = 300 + 500 * thing + 180 * std::sin(number * 0.05 + thing),
                         cy = 380 + 70 * std::cos(number * 0.08 + 2 * thing);
            for (int y = -110; y < 110; ++y)
                for (int x = -60; x < 60; ++x)
                    if (std::hypot(x / 60.0, y / 110.0) < 1)
                        set(static_cast<int>(cx) + x, static_cast<int>(cy) + y,
                            packed(sample(x + cx - static_cast<int>(cx) + 900 * thing, y + 100.0),
                                   40));
        }
        fill(0, 0, width, 60, 0);
        fill(0, height - 60, width, 60, 0);
        signs(420, 600, 34, number / 70 * 41, 0xf0f0f0);
        signs(1100, 70, 8, number / 30, 0xffffff);
    }

    // Layers that scroll at different speeds, jumping shapes, sparks, and a score.
    void game(int number)
    {
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                set(x, y, packed(sample((x + number) * 0.5 + 300, y * 0.5), y / 12.0f));
        for (int tile = 0; tile < 24; ++tile) {
            const int left = tile * 64 - number * 4 % 64, index = tile + number * 4 / 64;
            const int top = 560 - index * 37 % 3 * 48;
            for (int y = top; y < height; ++y)
                for (int x = 0; x < 64; ++x)
                    set(left + x, y, packed(sample(64.0 * (index % 7) + x, 600.0 + y - top), -30));
        }
        for (int thing = 0; thing < 9; ++thing) {
            const int left = (thing * 331 + number * (thing % 4 + 3) * 2) % (width + 80) - 80;
            const int top = 380 + thing % 3 * 60 -
                            static_cast<int>(90 * std::abs(std::sin(number * 0.09 + thing)));
            fill(left, top, 40, 56, 0x204060u + 0x1a0f07u * static_cast<uint32_t>(thing));
            fill(left + 8, top + 8, 24, 12, 0xf0e0c0);
            fill(left + 6 + number / 4 % 2 * 16, top + 48, 12, 8, 0x101010);
        }
        for (int spark = 0; spark < 60; ++spark)
            fill(static_cast<int>(random_() % width), static_cast<int>(300 + random_() % 300), 3, 3,
                 0xffe080);
        signs(20, 20, 30, number / 10, 0xffff60);
    }

    // A row of small dark and light marks, like letters.
    void signs(int left, int top, int count, int seed, uint32_t ink)
    {
        for (int sign = 0; sign < count; ++sign) {
            std::minstd_rand shape(static_cast<uint32_t>(seed + sign) * 7919u + 1);
            for (int stroke = 0; stroke < 4; ++stroke) {
                const bool upright = shape() % 2;
                fill(left + sign * 14 + static_cast<int>(shape() % 6),
                     top + static_cast<int>(shape() % 12), upright ? 2 : 7, upright ? 10 : 2, ink);
            }
        }
    }

    void fractal(int number)
    {
        const double scale = 0.002 * std::pow(0.985, number);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                const double re = -0.743643887037151 + (x - width / 2) * scale,
                             im = 0.131825904205330 + (y - height / 2) * scale;
                double a = 0, b = 0;
                int step = 0;
                for (; step < 220 && a * a + b * b < 64; ++step) {
                    const double next = a * a - b * b + re;
                    b = 2 * a * b + im;
                    a = next;
                }
                const auto light = static_cast<float>(
                    step == 220 ? 0 : step - std::log2(std::log2(a * a + b * b)));
                set(x, y,
                    packed({128 + 120 * std::sin(light * 0.21f),
                            128 + 120 * std::sin(light * 0.17f + 1),
                            128 + 120 * std::sin(light * 0.13f + 2)}));
            }
    }

    void automaton()
    {
        std::vector<uint8_t> next(cells_.size());
        const auto cell = [&](int x, int y) {
            return cells_[static_cast<size_t>((y + lines) % lines * columns +
                                              (x + columns) % columns)];
        };
        for (int y = 0; y < lines; ++y)
            for (int x = 0; x < columns; ++x) {
                int around = -cell(x, y);
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx)
                        around += cell(x + dx, y + dy);
                const bool lives = around == 3 || (around == 2 && cell(x, y));
                // Sets a few cells at random, so that the automaton keeps moving.
                next[static_cast<size_t>(y * columns + x)] = lives || random_() % 400 == 0;
                fill(x * cell_size, y * cell_size, cell_size, cell_size,
                     lives ? 0xf0f0e0 : 0x182028);
            }
        cells_ = std::move(next);
    }

    std::string name_;
    std::vector<uint32_t> pixels_;
    std::vector<Colour> photo_;
    std::vector<uint8_t> cells_ = std::vector<uint8_t>(size_t{columns} * lines);
    std::minstd_rand random_{20};
};
