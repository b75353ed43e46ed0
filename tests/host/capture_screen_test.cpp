// The capture device on X servers of the test's own, which change, freeze and die.
#include "capture_fixture.h"
#include "host/virtual_screen.h"

namespace zu3host {
namespace {

// Catches a recording of the wrong thing, and a refusal that does not say what to do.
TEST(CaptureDisplay, SaysWhyThereIsNone)
{
    const struct {
        const char *choice, *display, *said;
    } cases[] = {{"", "", "not set"},
                 {"x11", ":987", "DISPLAY=\":987\""},
                 {"television", ":987", "ZU3_DISPLAY=\"television\""}};
    for (const auto& c : cases) {
        *c.choice ? setenv("ZU3_DISPLAY", c.choice, 1) : unsetenv("ZU3_DISPLAY");
        *c.display ? setenv("DISPLAY", c.display, 1) : unsetenv("DISPLAY");
        Capture capture;
        testing::internal::CaptureStderr();
        EXPECT_NE(capture.connect(), ZU_OK);
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find(c.said), std::string::npos) << log;
    }
    unsetenv("ZU3_DISPLAY");
}

class CaptureScreen : public testing::Test {
protected:
    /** A display of this size, all of one colour, with the capture connected. */
    void show(uint16_t width, uint16_t height, uint32_t colour)
    {
        screen.emplace(width, height);
        ASSERT_TRUE(screen->ready());
        screen->fill(colour, {0, 0, width, height});
        ASSERT_EQ(capture.connect(), ZU_OK);
    }
    struct Place {
        uint32_t x, y;
        Yuv colour;
        const char* what;
    };
    void expect(std::initializer_list<Place> places, int others = 1) // one may have been grabbed before
    {
        capture.look(
            [&](const ZU_CAP_FrameInfo_t& frame) {
                for (const Place& place : places)
                    expect_near(capture.at(frame, place.x, place.y), place.colour, place.what);
            },
            others);
    }
    std::optional<VirtualScreen> screen;
    Capture capture;
};

// Catches a shifted or wrongly sized picture, a pointer that is missing, and a screen whose change of size is
// lost.
TEST_F(CaptureScreen, FollowsScreenAndPointer)
{
    const OpenSize encoder({1366, 768});
    show(1366, 768, 0x000000);
    screen->fill(0xFF0000, {1300, 700, 66, 68});
    ASSERT_EQ(capture.start(1376, 768, 50), ZU_OK);
    expect({{1300, 700, red, "the first red pixel"},
            {1365, 767, red, "the screen's last pixel"},
            {1298, 698, black, "outside the red"},
            {1374, 767, black, "padding"}});
    // A still screen is not fetched again, so what is drawn on it next must be noticed.
    for (const uint32_t colour : {0xFFFFFFu, 0xFF0000u}) {
        capture.look([](const ZU_CAP_FrameInfo_t&) {}, 4);
        screen->fill(colour, {600, 300, 2, 2});
        expect({{601, 301, colour == 0xFFFFFF ? white : red, "drawn on a still screen"}});
    }
    for (const uint32_t x : {100u, 300u}) {
        screen->show_pointer(static_cast<int16_t>(x), 200);
        expect({{x + 15, 215, white, "pointer"},
                {x + 16, 216, black, "beside the pointer"},
                {x == 100 ? 315u : 115u, 215, black, "where it was or will be"}});
    }
    screen->resize(768, 768);
    screen->fill(0xFFFFFF, {0, 0, 768, 768});
    expect({{200, 400, black, "left bar"},
            {310, 400, white, "picture"},
            {1060, 760, white, "picture"},
            {1080, 400, black, "right bar"}});
    screen->resize(1366, 768);
    screen->fill(0xFF0000, {0, 0, 1366, 768});
    expect({{1365, 767, red, "the whole screen again"}});
}

// Catches stills with another pointer or shape than was asked for while a recording runs; their formats are
// seen from outside.
TEST_F(CaptureScreen, TakesStillsWithThePointerAndLetterboxed)
{
    show(322, 200, 0xFF0000);
    screen->show_pointer(100, 100);
    ASSERT_EQ(capture.start(336, 224, 100), ZU_OK);
    const BlockOwner owner(322 * 200 * 4);
    const auto pixel = [&](uint32_t x, uint32_t y) {
        uint32_t value;
        std::memcpy(&value, owner.block.virt + (y * 322 + x) * 4, 4);
        return value;
    };
    const auto take = [&](uint32_t lines, bool osd) {
        return capture.still(owner.block, E_ZU_CAP_FORMAT_BGRA, {322, lines}, 0, owner.block.size, osd);
    };
    for (const bool osd : {false, true}) {
        ASSERT_EQ(take(200, osd), ZU_OK);
        EXPECT_EQ(pixel(321, 199), 0xFFFF0000u);
        EXPECT_EQ(pixel(108, 108), osd ? 0xFFFFFFFFu : 0xFFFF0000u) << "the pointer is the layer above";
    }
    ASSERT_EQ(take(100, false), ZU_OK);
    EXPECT_EQ(pixel(0, 50), 0xFF000000u) << "letterboxed";
    EXPECT_EQ(pixel(200, 80) & 0xFFF8FFFF, 0xFFF80000u) << "scaled";
}

// Catches a stop that waits for an X server that does not answer, and a frozen one taken for a lost one at
// once.
TEST_F(CaptureScreen, StopsWhileTheDisplayIsFrozen)
{
    show(320, 256, 0);
    const uint32_t lost = counters().display_lost;
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(capture.start(320, 256, 100), ZU_OK);
        capture.look([](const ZU_CAP_FrameInfo_t&) {});
        screen->freeze();
        const uint64_t captured = counters().pictures_captured;
        const auto quiet = std::chrono::steady_clock::now() + 100ms;
        EXPECT_TRUE(capture.wait_until([&] { return std::chrono::steady_clock::now() > quiet; }));
        EXPECT_LE(counters().pictures_captured - captured, 1u);
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(ZU_CAP_CaptureStop(capture.handle), ZU_OK);
        EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
        screen->thaw();
    }
    EXPECT_EQ(counters().display_lost, lost);
}

// Catches an exit, a signal, a spin or a hang when the X server dies in mid-capture.
TEST_F(CaptureScreen, SurvivesTheDisplay)
{
    show(320, 256, 0);
    ASSERT_EQ(capture.start(320, 256, 100), ZU_OK);
    capture.look([](const ZU_CAP_FrameInfo_t&) {});
    testing::internal::CaptureStderr();
    const uint64_t before = counters().pictures_dropped_no_display;
    screen->kill_server();
    EXPECT_TRUE(capture.wait_until([&] { return counters().pictures_dropped_no_display > before + 5; }));
    EXPECT_EQ(counters().display_lost, 1u);
    const BlockOwner owner(4096);
    EXPECT_NE(capture.still(owner.block, E_ZU_CAP_FORMAT_BGRA, {16, 16}, 64, 4096), ZU_OK);
    EXPECT_EQ(ZU_CAP_CaptureStop(capture.handle), ZU_OK);
    const std::string log = testing::internal::GetCapturedStderr();
    const size_t line = log.find("\" went away");
    ASSERT_NE(line, std::string::npos) << log;
    EXPECT_EQ(log.find("went away", line + 9), std::string::npos) << "said more than once";
}

} // namespace
} // namespace zu3host
