// The encoder's settings for each content, and the effect of their change on the stream.
#include "encoder/content_watch.h"
#include "encoder/x264_encoder.h"
#include "encoder_fixture.h"

#include <set>
#include <string_view>

using namespace zu3host;

namespace {

// Catches a scrolling page or terminal that gets the settings for film; a film, pan or game that is
// not recognized within a second; and settings that alternate.
TEST(ContentWatch, TellsScreensFromFilm)
{
    // percent of macroblocks that are not skipped, in turn; -1 is a picture like the last one
    const struct {
        const char* name;
        std::vector<int> busy;
        int pictures;
        Content content;
    } stretches[] = {
        {"a terminal that scrolls", {25, 8, 5}, 300, Content::screens},
        {"a page that scrolls", {14, 25, 12, 19}, 300, Content::screens},
        {"a slow pan", {31, 36}, 40, Content::film},
        {"one quiet second of it", {5}, 29, Content::film},
        {"24 pictures as 60", {60, -1, 60, -1, -1}, 600, Content::film},
        {"a pause", {-1}, 31, Content::film},
        {"a terminal", {25, -1, -1}, 120, Content::screens},
        {"noise", {100}, 8, Content::film},
    };
    constexpr PictureLayout layout = PictureLayout::of(176, 160);
    Bytes picture(layout.picture_bytes());
    ContentWatch watch(30, layout);
    int number = 0;
    Content content{};
    for (const auto& [name, busy, pictures, expected] : stretches) {
        for (int i = 0; i < pictures; ++i, ++number) {
            const int percent = busy[static_cast<size_t>(i) % busy.size()];
            if (percent < 0)
                watch.note_unchanged();
            else
                watch.note(
                    {0, static_cast<uint32_t>(percent), static_cast<uint32_t>(100 - percent)});
            if (percent >= 0)
                draw(picture.data(), layout, static_cast<uint32_t>(number));
            content = watch.content(number % 60 == 59, picture.data());
        }
        EXPECT_EQ(content, expected) << name;
    }
}

/** How content that covers a picture moves from each picture to the next. */
struct Motion {
    const char* name;
    /** in halves of a pixel */
    uint32_t right;
    uint32_t down;
    /** brighter, by so much */
    uint32_t light;
    Content content;
};

/** Blocks of five by seven pixels, blurred between two pixels. */
void draw_moved(uint8_t* luma, PictureLayout layout, const Motion& motion, uint32_t number)
{
    const auto block = [](uint32_t x, uint32_t y) {
        return ((x / 5 + 1) * 2654435761u ^ (y / 7 + 1) * 2246822519u) >> 26;
    };
    for (uint32_t y = 0; y < layout.lines; ++y)
        for (uint32_t x = 0; x < layout.stride; ++x) {
            const uint32_t far_x = 2 * x + 100'000 - motion.right * number;
            const uint32_t far_y = 2 * y + 100'000 - motion.down * number;
            const uint32_t sum =
                block(far_x / 2, far_y / 2) + block((far_x + 1) / 2, (far_y + 1) / 2);
            luma[size_t{y} * layout.stride + x] =
                static_cast<uint8_t>(60 + sum / 2 + motion.light * number);
        }
}

// Catches a region or a window that scrolls and is encoded as a film, for a third more computing time
// and no better picture; and a film that is encoded as a screen.
TEST(ContentWatch, FindsWhatMovesByWholePixels)
{
    const Motion motions[] = {
        {"a page that scrolls", 0, 18, 0, Content::screens},
        {"a window that is dragged", 26, 10, 0, Content::screens},
        {"a pan by half a pixel", 1, 0, 0, Content::film},
        {"a pan by pixels and a half", 7, 0, 0, Content::film},
        {"a page that jumps", 0, 90, 0, Content::film},
        {"light that fades", 0, 0, 1, Content::film},
    };
    constexpr PictureLayout layout = PictureLayout::of(176, 160);
    Bytes picture(layout.picture_bytes());
    for (const Motion& motion : motions) {
        ContentWatch watch(30, layout);
        Content content{};
        for (uint32_t number = 0; number < 60; ++number) {
            // A page that changes once in half a second is no film.
            draw_moved(picture.data(), layout, motion, number + number / 15 * 1000);
            watch.note({0, 90, 10});
            content = watch.content(false, picture.data());
        }
        EXPECT_EQ(content, motion.content) << motion.name;
    }
}

/** Adds a unit's sequence and picture parameter sets. */
void add_parameter_sets(const AccessUnit& unit, std::set<Bytes>& sets)
{
    const Bytes start{0, 0, 1};
    const uint8_t* const end = unit.data + unit.size;
    const auto next = [&](const uint8_t* from) {
        return std::search(from, end, start.begin(), start.end());
    };
    for (const uint8_t* nal = next(unit.data); nal != end; nal = next(nal + 3))
        if (const int type = nal[3] & 31; type == 7 || type == 8)
            sets.emplace(nal + 3, next(nal + 3));
}

// Catches a change of settings without a key frame, another distance of the key frames behind it,
// and parameter sets that change with it: a movie file has those of its first frame only.
TEST(X264EncoderContent, ChangesItsSettingsAtAKeyFrameWithTheSameParameterSets)
{
    constexpr uint32_t width = 176, height = 160;
    const PictureLayout layout = PictureLayout::of(width, height);
    for (const uint32_t profile : {0, 66, 77, 100}) {
        SCOPED_TRACE(profile);
        const auto encoder =
            X264Encoder::open({{width, height}, layout, 30, EncoderRate::of(0), profile, 0, false});
        Bytes picture(layout.picture_bytes(), 128);
        std::set<Bytes> sets;
        std::vector<uint32_t> keys, with_motion_between_pixels, without;
        for (uint32_t number = 0; number < 260; ++number) {
            // still, then film, then a small spot that moves
            if (number < 60)
                draw(picture.data(), layout, number < 20 ? 0 : number - 20);
            else
                std::fill_n(picture.begin(), 16, static_cast<uint8_t>(number));
            const auto unit = encoder->encode(picture.data(), false, std::nullopt);
            ASSERT_TRUE(unit);
            if (unit->key)
                keys.push_back(number);
            // x264 writes its settings into the first unit of each encoder.
            const std::string_view text(reinterpret_cast<const char*>(unit->data), unit->size);
            if (text.find("subme=2") != text.npos)
                with_motion_between_pixels.push_back(number);
            if (text.find("subme=0") != text.npos)
                without.push_back(number);
            add_parameter_sets(*unit, sets);
        }
        ASSERT_EQ(keys.size(), 5u);
        EXPECT_GT(keys[1], 22u);
        EXPECT_LT(keys[1], 30u);
        for (size_t later = 2; later < keys.size(); ++later)
            EXPECT_EQ(keys[later], keys[later - 1] + 60);
        EXPECT_EQ(with_motion_between_pixels, (std::vector<uint32_t>{keys[1]}));
        EXPECT_EQ(without, (std::vector<uint32_t>{0, keys[4]}));
        // one of the sequence, x264's of the picture and that of repetitions
        EXPECT_EQ(sets.size(), 3u);
    }
}

} // namespace
