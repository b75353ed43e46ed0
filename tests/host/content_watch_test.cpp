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
    ContentWatch watch(30);
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
            content = watch.content(number % 60 == 59);
        }
        EXPECT_EQ(content, expected) << name;
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

// Catches a change of settings without a key frame or with one more than usual, and parameter sets
// that change with it: a movie file has those of its first frame only.
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
            EXPECT_EQ(keys[later], 60 * later);
        EXPECT_EQ(with_motion_between_pixels, (std::vector<uint32_t>{keys[1]}));
        EXPECT_EQ(without, (std::vector<uint32_t>{0, keys[3]}));
        // one of the sequence, x264's of the picture and that of repetitions
        EXPECT_EQ(sets.size(), 3u);
    }
}

} // namespace
