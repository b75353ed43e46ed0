// Only changed parts of a screen are fetched and converted. The pictures must equal those of whole
// conversions, bit for bit.
#include "capture/cropped_source.h"
#include "capture/part_list.h"
#include "capture/picture_pool.h"
#include "capture/picture_writer.h"
#include "capture/x11_source.h"
#include "helpers.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <numeric>
#include <random>
#include <span>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>
#include <xcb/xcb.h>

using namespace zu3host;

namespace {

using Random = std::minstd_rand;

uint32_t below(Random& random, uint32_t limit)
{
    return static_cast<uint32_t>(random() % limit);
}

PictureRectangle random_part(Random& random, PictureSize image)
{
    const uint32_t x = below(random, image.width), y = below(random, image.height);
    // mostly small ones, such as a letter or a line of text
    const uint32_t least = below(random, 3) ? 12 : 1000;
    return {x,
            y,
            {1 + below(random, std::min(least, image.width - x)),
             1 + below(random, std::min(least, image.height - y))}};
}

// Catches a changed pixel that no part covers, a corner that a plane of half the resolution does
// not have, and a part that leaves the image.
TEST(PartList, CoversAllThatWasAdded)
{
    Random random(7);
    for (int round = 0; round < 300; ++round) {
        const PictureSize image{1 + below(random, 90), 1 + below(random, 70)};
        std::vector<bool> added(size_t{image.width} * image.height), covered = added;
        const auto mark = [&image](std::vector<bool>& pixels, const PictureRectangle& part) {
            for (uint32_t y = part.y; y < std::min(part.y + part.size.height, image.height); ++y)
                for (uint32_t x = part.x; x < std::min(part.x + part.size.width, image.width); ++x)
                    pixels[size_t{y} * image.width + x] = true;
        };
        PartList list(image);
        for (uint32_t count = below(random, 30); count > 0; --count) {
            PictureRectangle part = random_part(random, image);
            if (below(random, 8) == 0)
                part.size = {0xFFFFFF00, below(random, 2)};
            list.add(part);
            if (part.size.height)
                mark(added, {part.x, part.y, {std::min(part.size.width, 100u), part.size.height}});
        }
        for (const PictureRectangle& part : list.parts()) {
            const uint32_t right = part.x + part.size.width, bottom = part.y + part.size.height;
            EXPECT_TRUE(part.x % 2 == 0 && part.y % 2 == 0);
            EXPECT_TRUE(right == image.width || (right < image.width && right % 2 == 0));
            EXPECT_TRUE(bottom == image.height || (bottom < image.height && bottom % 2 == 0));
            mark(covered, part);
        }
        EXPECT_LE(list.parts().size(), PartList::most);
        for (size_t pixel = 0; pixel < added.size(); ++pixel)
            ASSERT_TRUE(covered[pixel] || !added[pixel]) << "round " << round;
    }
}

/** Whether an image equals an earlier one of its size but for these parts. */
bool is_same_outside(std::span<const PictureRectangle> parts, const uint8_t* before,
                     const BgraImage& image)
{
    const size_t bytes = size_t{image.stride} * image.size.height;
    std::vector<uint8_t> made(before, before + bytes);
    for (const PictureRectangle& part : parts)
        for (uint32_t line = part.y; line < part.y + part.size.height; ++line) {
            const size_t at = size_t{image.stride} * line + size_t{4} * part.x;
            std::memcpy(made.data() + at, image.pixels + at, size_t{4} * part.size.width);
        }
    return std::memcmp(made.data(), image.pixels, bytes) == 0;
}

// Catches a scaled pixel that depends on a changed one beyond the assumed reach.
TEST(ScaledParts, ReachAllThatDiffers)
{
    Random random(5);
    for (int round = 0; round < 400; ++round) {
        // multiples too, which libyuv treats apart
        const PictureSize size{round % 4 ? 8 + below(random, 500) : 32 * (1 + below(random, 16)),
                               round % 4 ? 8 + below(random, 400) : 24 * (1 + below(random, 16))};
        const PictureSize to = fit_into(size, {128, 96}).image;
        SCOPED_TRACE(testing::Message()
                     << size.width << "x" << size.height << " to " << to.width << "x" << to.height);
        std::vector<uint32_t> pixels(size_t{size.width} * size.height);
        std::ranges::generate(pixels, [&] { return static_cast<uint32_t>(random()); });
        const BgraImage image{reinterpret_cast<const uint8_t*>(pixels.data()), size.width * 4, size,
                              1};
        BgraScaler first, second;
        const BgraImage before = first.scaled(image, to);
        PartList changed(size);
        for (uint32_t count = 1 + below(random, 3); count > 0; --count) {
            const PictureRectangle part = random_part(random, size);
            for (uint32_t line = part.y; line < part.y + part.size.height; ++line)
                std::generate_n(&pixels[size_t{line} * size.width + part.x], part.size.width,
                                [&] { return static_cast<uint32_t>(random()); });
            changed.add(part);
        }
        const BgraImage after = second.scaled(image, to);
        const PartList parts = scaled_parts(changed, to);
        EXPECT_TRUE(is_same_outside(parts.parts(), before.pixels, after));
    }
}

/** A source with one image. */
struct OneImage : PictureSource {
    explicit OneImage(const BgraImage& shown) : image(shown) {}
    std::optional<BgraImage> grab(const GrabRequest&) override { return image; }
    BgraImage image;
};

// Catches another region than the requested one, and a change that is lost or misplaced.
TEST(CroppedSource, ShowsTheRegionAndItsChanges)
{
    std::vector<uint32_t> pixels(20 * 10);
    std::iota(pixels.begin(), pixels.end(), 0);
    const PictureRectangle parts[] = {{0, 0, {6, 4}}, {12, 8, {8, 2}}};
    const OneImage whole(
        {reinterpret_cast<const uint8_t*>(pixels.data()), 80, {20, 10}, 7, {5, parts}});
    const struct {
        common::ScreenRegion region;
        PictureSize size;
        uint32_t first;
        std::vector<PictureRectangle> changed;
        const char* said;
    } cases[] = {
        {{4, 2, {8, 6}}, {8, 6}, 44, {{0, 0, {2, 2}}}, ""},
        {{14, 7, {100, 100}}, {6, 3}, 154, {{0, 0, {6, 3}}}, "only 6x3+14+7 is captured"},
        {{-2, -2, {4, 4}}, {2, 2}, 0, {{0, 0, {2, 2}}}, "only 2x2+0+0 is captured"},
        {{20, 0, {4, 4}}, {}, 0, {}, "4x4+20+0 lies outside"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(common::region_text(c.region));
        CroppedSource source(std::make_unique<OneImage>(whole.image), c.region);
        testing::internal::CaptureStderr();
        source.grab({});
        const auto image = source.grab({});
        EXPECT_NE(captured_log().find(c.said), std::string::npos);
        ASSERT_EQ(image.has_value(), c.size.width != 0);
        if (!image)
            continue;
        EXPECT_EQ(image->size, c.size);
        EXPECT_EQ(image->serial, 7u);
        EXPECT_EQ(image->changed.since, 5u);
        EXPECT_EQ(std::memcmp(image->pixels, &c.first, 4), 0);
        EXPECT_TRUE(std::ranges::equal(image->changed.parts, c.changed, [](auto& a, auto& b) {
            return a.x == b.x && a.y == b.y && a.size == b.size;
        }));
    }
}

// Catches a recording that ends, with its sound, when the screen becomes too small for its region.
TEST(CroppedSource, IsBlackWhileItLiesOutside)
{
    const std::vector<uint32_t> pixels(20 * 10, 0xFFFFFFFF);
    auto whole = std::make_unique<OneImage>(
        BgraImage{reinterpret_cast<const uint8_t*>(pixels.data()), 80, {20, 10}, 7});
    BgraImage& screen = whole->image;
    CroppedSource source(std::move(whole), {12, 2, {8, 6}});
    for (const PictureSize size : {PictureSize{20, 10}, {10, 10}, {20, 10}}) {
        screen.size = size;
        const auto image = source.grab({});
        ASSERT_TRUE(image);
        EXPECT_EQ(image->size, (PictureSize{8, 6}));
        EXPECT_EQ(image->serial == 7, size.width == 20);
        EXPECT_EQ(image->pixels[0], size.width == 20 ? 255 : 0);
    }
}

/** An X server without a visible screen; the one of DISPLAY while it lives. */
class Server {
public:
    explicit Server(const char* screen)
    {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        const std::string number = std::to_string(ends[1]);
        const char* const arguments[] = {"Xvfb",     "-displayfd", number.c_str(), "-screen",
                                         "0",        screen,       "-nolisten",    "tcp",
                                         "-noreset", "-retro",     nullptr};
        EXPECT_EQ(posix_spawnp(&process_, "Xvfb", nullptr, nullptr,
                               const_cast<char* const*>(arguments), environ),
                  0);
        close(ends[1]);
        std::string display = ":";
        for (char letter = 0; read(ends[0], &letter, 1) == 1 && letter != '\n';)
            display += letter;
        close(ends[0]);
        setenv("DISPLAY", display.c_str(), 1);
    }
    ~Server()
    {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
        unsetenv("DISPLAY");
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

private:
    pid_t process_ = -1;
};

/** Draws on the screen of DISPLAY and moves its pointer. */
class Painter {
public:
    Painter() : xcb_(xcb_connect(nullptr, nullptr))
    {
        screen_ = xcb_setup_roots_iterator(xcb_get_setup(xcb_)).data;
        context_ = xcb_generate_id(xcb_);
        const uint32_t inferiors_too = XCB_SUBWINDOW_MODE_INCLUDE_INFERIORS;
        xcb_create_gc(xcb_, context_, screen_->root, XCB_GC_SUBWINDOW_MODE, &inferiors_too);
    }
    ~Painter() { xcb_disconnect(xcb_); }
    Painter(const Painter&) = delete;
    Painter& operator=(const Painter&) = delete;

    PictureSize size() const { return {screen_->width_in_pixels, screen_->height_in_pixels}; }
    /** Fills with pixels that all differ, so that one that is out of place is seen. */
    void draw(Random& random, const PictureRectangle& part)
    {
        std::vector<uint32_t> pixels(size_t{part.size.width} * part.size.height);
        std::generate(pixels.begin(), pixels.end(),
                      [&random] { return static_cast<uint32_t>(random()) & 0x3fffffff; });
        // within the server's limit for a request
        for (uint32_t line = 0; line < part.size.height; ++line)
            xcb_put_image(
                xcb_, XCB_IMAGE_FORMAT_Z_PIXMAP, screen_->root, context_,
                static_cast<uint16_t>(part.size.width), 1, static_cast<int16_t>(part.x),
                static_cast<int16_t>(part.y + line), 0, screen_->root_depth, part.size.width * 4,
                reinterpret_cast<const uint8_t*>(pixels.data() + size_t{line} * part.size.width));
    }
    void move_pointer(Random& random)
    {
        xcb_warp_pointer(xcb_, XCB_NONE, screen_->root, 0, 0, 0, 0,
                         static_cast<int16_t>(below(random, size().width)),
                         static_cast<int16_t>(below(random, size().height)));
    }
    /** Returns when the server has done it all. */
    void finish()
    {
        std::free(xcb_get_input_focus_reply(xcb_, xcb_get_input_focus(xcb_), nullptr));
    }

private:
    xcb_connection_t* xcb_;
    xcb_screen_t* screen_;
    xcb_gcontext_t context_;
};

/** The pictures that one source is written into, some of which miss many images. */
class Pictures {
public:
    explicit Pictures(PictureSize visible)
        : visible_(visible), pool_(PicturePool::own(layout(), 0)),
          whole_(PicturePool::own(layout(), 0))
    {
    }

    /** Writes an image into a random picture; whether it equals a whole conversion. */
    bool write_one(Random& random, const BgraImage& image)
    {
        writer_.note(image);
        std::vector<uint32_t> taken;
        for (uint32_t count = 1 + below(random, 5); count > 0; --count)
            taken.push_back(*pool_->acquire());
        const uint32_t index = taken.back();
        if (below(random, 10) == 0) {
            // as a renderer does
            pool_->contents(index).drawn_on = true;
            std::memset(pool_->picture(index), 7, layout().picture_bytes());
        }
        writer_.write(image, *pool_, index, visible_);
        for (const uint32_t each : taken)
            pool_->release(each);
        whole_->contents(0) = {};
        PictureWriter().write(image, *whole_, 0, visible_);
        return same(pool_->picture(index), whole_->picture(0)) &&
               is_described(pool_->picture(index), pool_->contents(index));
    }

private:
    PictureLayout layout() const { return PictureLayout::of(visible_.width, visible_.height); }
    bool same(const uint8_t* a, const uint8_t* b) const
    {
        return std::memcmp(a, b, layout().picture_bytes()) == 0;
    }
    /** Whether the last picture is equal to the one before it but for the changed parts. */
    bool is_described(const uint8_t* picture, const PicturePool::Contents& contents)
    {
        std::vector<uint8_t> before(picture, picture + layout().picture_bytes());
        before_.swap(before);
        const uint64_t since = std::exchange(serial_before_, contents.serial);
        if (before.empty())
            return contents.since == 0;
        for (const PictureRectangle& part : contents.changed.parts())
            for (uint32_t line = 0; line < part.size.height; ++line) {
                copy(before, part.x, part.y + line, part.size.width);
                if (line % 2 == 0)
                    copy(before, part.x, layout().lines + (part.y + line) / 2, part.size.width);
            }
        return contents.since == since && same(before.data(), picture);
    }
    void copy(std::vector<uint8_t>& to, uint32_t x, uint32_t line, uint32_t bytes) const
    {
        const size_t at = size_t{layout().stride} * line + x;
        std::memcpy(to.data() + at, before_.data() + at, bytes);
    }

    const PictureSize visible_;
    const std::shared_ptr<PicturePool> pool_, whole_;
    PictureWriter writer_;
    std::vector<uint8_t> before_;
    uint64_t serial_before_ = 0;
};

/** Compares each image with the one before it. */
class Predecessor {
public:
    /** Whether the image is equal to the one before it but for its changed parts. */
    bool is_described_by(const BgraImage& image)
    {
        const uint64_t serial = std::exchange(serial_, image.serial);
        std::vector<uint8_t> now(image.pixels,
                                 image.pixels + size_t{image.stride} * image.size.height);
        pixels_.swap(now);
        if (now.empty())
            return image.changed.since == 0;
        if (image.serial == serial)
            return now == pixels_;
        return image.changed.since == serial &&
               is_same_outside(image.changed.parts, now.data(), image);
    }

private:
    uint64_t serial_ = 0;
    std::vector<uint8_t> pixels_;
};

struct CapturedScreen {
    const char* screen;
    common::ScreenPart part;
    int rounds;
};

class ChangedScreen : public testing::TestWithParam<CapturedScreen> {};

// Catches a changed pixel that is not fetched or not converted, a rest of the pointer, a part that is
// said to be unchanged, and a change that a glance overlooks.
TEST_P(ChangedScreen, MakesThePictureOfAFullFetch)
{
    const auto& [screen, part, rounds] = GetParam();
    const Server server(screen);
    Painter painter;
    Random random(11);
    const auto source = X11Source::open(part);
    ASSERT_TRUE(source);
    const PictureSize size = part.region ? part.region->size : painter.size();
    Pictures same_size({size.width & ~1u, size.height & ~1u});
    Pictures reduced({96, 64}), enlarged({448, 352});
    Predecessor predecessor;
    int partly = 0, glances = 0;
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        for (uint32_t count = below(random, 3) == 0 ? 0 : below(random, 12); count > 0; --count)
            painter.draw(random, random_part(random, painter.size()));
        const bool moved = below(random, 3) == 0;
        if (moved)
            painter.move_pointer(random);
        // twice: events about what was drawn may follow the first answer
        painter.finish();
        painter.finish();
        const GrabRequest request{{}, 0, below(random, 5) != 0, {}, 60s};
        // a glance learns of a pointer that moves one picture later
        const auto glance = moved ? std::nullopt : source->glance(request);
        glances += glance.has_value();
        const auto image = glance ? glance : source->grab(request);
        ASSERT_TRUE(image);
        EXPECT_TRUE(predecessor.is_described_by(*image));
        EXPECT_TRUE(same_size.write_one(random, *image));
        EXPECT_TRUE(reduced.write_one(random, *image));
        EXPECT_TRUE(enlarged.write_one(random, *image));
        const auto other = X11Source::open(part);
        const auto whole = other->grab(request);
        ASSERT_TRUE(whole && whole->size == image->size && whole->stride == image->stride);
        ASSERT_EQ(
            std::memcmp(image->pixels, whole->pixels, size_t{image->stride} * image->size.height),
            0);
        partly += image->changed.parts.size() > 1;
        for (int still = below(random, 6) == 0 ? 4 : 0; still > 0; --still)
            ASSERT_TRUE(source->grab(request));
    }
    EXPECT_GT(partly, rounds / 10) << "the screen was fetched as a whole";
    EXPECT_GT(glances, rounds / 100) << "a still screen is waited for";
}

// An odd size, one of ten bits a colour, and a region.
INSTANTIATE_TEST_SUITE_P(
    Screens, ChangedScreen,
    testing::Values(CapturedScreen{"321x257x24", {}, 400}, CapturedScreen{"320x256x30", {}, 300},
                    CapturedScreen{
                        "321x257x24", {.region = common::ScreenRegion{33, 17, {200, 151}}}, 300}));

// Catches lines that the checks skip, so that drawing without DAMAGE is missed.
TEST(X11Image, ChecksAllLinesInTurn)
{
    const Server server("322x201x24");
    Painter painter;
    Random random(13);
    const auto connection = X11Connection::open();
    const xcb_window_t root = connection->screen().root;
    const X11Place place{root, 0, 0, painter.size(), root, 0, 0};
    for (const bool shared : {true, false}) {
        const auto image = shared ? X11Image::shared(*connection, place.size)
                                  : X11Image::plain(*connection, place.size);
        PartList changed(place.size);
        changed.add_all();
        image->request(place, changed);
        ASSERT_TRUE(image->collect(changed));
        const PictureRectangle drawn{30, 40, {200, 150}};
        painter.draw(random, drawn);
        painter.finish();
        changed.clear();
        for (uint32_t step = 0; step < X11Image::checks; ++step) {
            image->request_check(place);
            ASSERT_TRUE(image->collect(changed));
        }
        ASSERT_EQ(changed.parts().size(), 1u);
        EXPECT_EQ(changed.bounds().y, drawn.y);
        EXPECT_EQ(changed.bounds().size.height, drawn.size.height);
        const auto other = X11Source::open({});
        const auto whole = other->grab({{}, 0, false, {}, 60s});
        ASSERT_TRUE(whole);
        EXPECT_EQ(
            std::memcmp(image->pixels(), whole->pixels, size_t{whole->stride} * whole->size.height),
            0);
    }
}

} // namespace
