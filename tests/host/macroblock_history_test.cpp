// The flags of macroblocks for x264.
#include "encoder/macroblock_history.h"
#include "encoder/x264_encoder.h"
#include "encoder_fixture.h"

#include <string>
#include <x264.h>

using namespace zu3host;

namespace {

constexpr uint32_t columns = 6, rows = 4;

/** Rows of macroblocks as x264 is told of them, '=' is constant; "" if it is told of nothing. */
std::string told(MacroblockHistory& history, ChangedRectangles changed)
{
    const uint8_t* const flags = history.constant_in(changed);
    std::string text;
    for (uint32_t at = 0; flags && at < columns * rows; ++at)
        text += flags[at] == X264_MBINFO_CONSTANT ? '=' : '.';
    return text;
}

/** After `pictures` without changes. */
MacroblockHistory refined(uint32_t pictures)
{
    MacroblockHistory history({columns * 16, rows * 16});
    for (uint32_t i = 0; i < pictures; ++i)
        history.encoded(i == 0);
    return history;
}

// Catches a mark on a macroblock that changed or is not refined, which x264 would then leave as it
// is, and on one that it could not skip, since its neighbors predict another motion.
TEST(MacroblockHistory, TellsOfWhatHasBeenRefinedBesideWhatStands)
{
    const struct {
        const char* name;
        std::vector<PictureRectangle> changed;
        const char* told;
    } cases[] = {
        {"one pixel", {{17, 17, {1, 1}}}, "=======.================"},
        {"over an edge", {{31, 15, {2, 2}}}, "=..====..==============="},
        {"beyond the picture",
         {{80, 48, {~0u, ~0u}}, {200, 200, {1, 1}}},
         "=======================."},
        {"empty", {{40, 20, {0, 9}}}, "========================"},
        {"around one",
         {{16, 16, {48, 16}}, {16, 32, {16, 16}}, {48, 32, {16, 16}}},
         "=======...===...========"},
    };
    for (const auto& [name, changed, expected] : cases) {
        MacroblockHistory history = refined(20);
        EXPECT_EQ(told(history, changed), expected) << name;
    }
}

// Catches a count of refinements that continues although the picture was redrawn.
TEST(MacroblockHistory, StartsAnewWithChangesAndKeyFrames)
{
    const std::vector<PictureRectangle> corner{{0, 0, {1, 1}}};
    const std::string all(columns * rows, '='), none(columns * rows, '.');
    MacroblockHistory history = refined(1);
    EXPECT_EQ(told(history, corner), none) << "just encoded";
    EXPECT_EQ(told(history, ChangedRectangles(std::in_place)), all) << "nothing changed at all";
    for (int i = 0; i < 20; ++i)
        history.encoded(false);
    EXPECT_EQ(told(history, corner), "." + all.substr(1));
    history.encoded(false);
    EXPECT_EQ(told(history, std::vector<PictureRectangle>{{80, 48, {1, 1}}}).substr(0, 2), ".=");
    EXPECT_EQ(told(history, std::nullopt), "");
    EXPECT_EQ(told(history, corner), none) << "after a picture of which nothing is known";
    for (int i = 0; i < 20; ++i)
        history.encoded(false);
    history.encoded(true);
    EXPECT_EQ(told(history, corner), none) << "after a key frame";
}

} // namespace
