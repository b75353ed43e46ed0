// The flags of macroblocks for x264.
#include "encoder/unchanged_macroblocks.h"
#include "encoder/x264_encoder.h"
#include "encoder_fixture.h"

#include <string>
#include <x264.h>

using namespace zu3host;

namespace {

constexpr uint32_t columns = 6, rows = 4;

/** Rows of macroblocks as x264 is told of them, '=' is constant; "" if it is told of nothing. */
std::string told(UnchangedMacroblocks& macroblocks, ChangedRectangles changed)
{
    const uint8_t* const flags = macroblocks.find(changed);
    std::string text;
    for (uint32_t at = 0; flags && at < columns * rows; ++at)
        text += flags[at] == X264_MBINFO_CONSTANT ? '=' : '.';
    return text;
}

// Catches a mark on a macroblock that changed, which x264 would then leave as it is, and on one
// that it could not skip, since its neighbors predict another motion.
TEST(UnchangedMacroblocks, AreThoseBesideWhatStands)
{
    using Parts = std::vector<PictureRectangle>;
    const struct {
        const char* name;
        std::optional<Parts> changed;
        const char* told;
    } cases[] = {
        {"one pixel", Parts{{17, 17, {1, 1}}}, "=======.================"},
        {"over an edge", Parts{{31, 15, {2, 2}}}, "=..====..==============="},
        {"beyond the picture", Parts{{80, 48, {~0u, ~0u}}, {200, 200, {1, 1}}},
         "=======================."},
        {"empty", Parts{{40, 20, {0, 9}}}, "========================"},
        {"around one", Parts{{16, 16, {48, 16}}, {16, 32, {16, 16}}, {48, 32, {16, 16}}},
         "=======...===...========"},
        {"nothing", Parts{}, "========================"},
        {"unknown", std::nullopt, ""},
    };
    UnchangedMacroblocks macroblocks({columns * 16, rows * 16});
    for (const auto& [name, changed, expected] : cases)
        EXPECT_EQ(told(macroblocks, changed), expected) << name;
}

// Catches settings for small changes that are used for large ones, or the other way round.
TEST(UnchangedMacroblocks, AreAlmostAllBesideAThirtySecond)
{
    UnchangedMacroblocks macroblocks({8 * 16, 8 * 16});
    EXPECT_FALSE(macroblocks.almost_all()) << "before the first picture";
    const struct {
        uint32_t pixels;
        bool almost_all;
    } cases[] = {{0, true}, {32, true}, {33, false}, {128, false}};
    for (const auto& [pixels, almost_all] : cases) {
        macroblocks.find(std::vector<PictureRectangle>{{0, 0, {pixels, 1}}});
        EXPECT_EQ(macroblocks.almost_all(), almost_all) << pixels;
    }
    macroblocks.find(std::nullopt);
    EXPECT_FALSE(macroblocks.almost_all()) << "after a picture of which nothing is known";
}

} // namespace
