// The part of the screen that the environment names: accepted and refused values.
#include "capture/screen.h"
#include "helpers.h"

#include <cstdlib>
#include <gtest/gtest.h>

using namespace zu3host;
using common::ScreenPart;
using common::ScreenRegion;

namespace {

/** One setting of the environment while it lives. */
struct Setting {
    Setting(const char* setting, const char* value) : name(setting) { setenv(name, value, 1); }
    ~Setting() { unsetenv(name); }
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;
    const char* const name;
};

// Catches a value that is read as another one or passed over, and a number that overflows.
TEST(PartChoice, ReadsOrRefusesEachSetting)
{
    const struct {
        const char* name;
        const char* value;
        std::optional<ScreenPart> part;
    } cases[] = {
        {"ZU3_REGION", "640x360+100+50", ScreenPart{.region = ScreenRegion{100, 50, {640, 360}}}},
        {"ZU3_REGION", "1x1+-7+-2147483648",
         ScreenPart{.region = ScreenRegion{-7, INT32_MIN, {1, 1}}}},
        {"ZU3_REGION", "", ScreenPart{}},
        {"ZU3_REGION", "640x360", {}},
        {"ZU3_REGION", "640x360+1", {}},
        {"ZU3_REGION", "640x360-1+1", {}},
        {"ZU3_REGION", "640x360+1+1 ", {}},
        {"ZU3_REGION", "0x360+1+1", {}},
        {"ZU3_REGION", "-640x360+1+1", {}},
        {"ZU3_REGION", "4294967296x360+1+1", {}},
        {"ZU3_REGION", "640x360+2147483648+1", {}},
        {"ZU3_MONITOR", "HDMI-1", ScreenPart{.monitor = "HDMI-1"}},
        {"ZU3_WINDOW", "active", ScreenPart{.window = ScreenPart::active_window}},
        {"ZU3_WINDOW", "0x1c00003", ScreenPart{.window = 0x1c00003}},
        {"ZU3_WINDOW", "29360131", ScreenPart{.window = 0x1c00003}},
        {"ZU3_WINDOW", "0", {}},
        {"ZU3_WINDOW", "0x", {}},
        {"ZU3_WINDOW", "1c00003", {}},
        {"ZU3_WINDOW", "0x100000000", {}},
        {"ZU3_POINTER", "0", ScreenPart{.pointer = false}},
        {"ZU3_POINTER", "1", ScreenPart{}},
        {"ZU3_POINTER", "no", {}},
    };
    for (const auto& c : cases) {
        const Setting set(c.name, c.value);
        testing::internal::CaptureStderr();
        EXPECT_EQ(chosen_screen_part(), c.part) << c.name << "=" << c.value;
        EXPECT_EQ(captured_log().find(c.name) != std::string::npos, !c.part.has_value())
            << c.name << "=" << c.value;
    }
}

// Catches a setting that silently overrides another one.
TEST(PartChoice, CombinesSettings)
{
    const Setting region("ZU3_REGION", "640x360+0+0"), monitor("ZU3_MONITOR", "primary");
    EXPECT_EQ(chosen_screen_part(),
              (ScreenPart{.region = ScreenRegion{0, 0, {640, 360}}, .monitor = "primary"}));
    const Setting window("ZU3_WINDOW", "active");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(chosen_screen_part());
    EXPECT_NE(captured_log().find("cannot be combined"), std::string::npos);
}

// Catches a sum that overflows, and an edge that counts as a common pixel.
TEST(PartChoice, RegionsOverlap)
{
    const ScreenRegion screen{0, 0, {1280, 720}};
    const struct {
        ScreenRegion region;
        std::optional<ScreenRegion> inside;
    } cases[] = {
        {{0, 0, {1280, 720}}, screen},
        {{-10, 700, {100, 100}}, ScreenRegion{0, 700, {90, 20}}},
        {{1270, -5, {4294967295, 6}}, ScreenRegion{1270, 0, {10, 1}}},
        {{INT32_MIN, INT32_MIN, {4294967295, 4294967295}}, screen},
        {{1280, 0, {10, 10}}, {}},
        {{0, -10, {10, 10}}, {}},
        {{INT32_MAX, INT32_MAX, {4294967295, 4294967295}}, {}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(common::overlap(c.region, screen), c.inside) << common::region_text(c.region);
}

} // namespace
