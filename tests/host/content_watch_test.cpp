// The encoder's settings for each content, and the effect of their change on the stream.
#include "encoder/content_watch.h"
#include "encoder/picture_look.h"
#include "encoder/x264_encoder.h"
#include "encoder_fixture.h"

#include <set>
#include <string_view>

using namespace zu3host;

namespace {

constexpr PictureLayout layout = PictureLayout::of(176, 160);
const ChangedRectangles in_no_new_scene = std::span<const PictureRectangle>{};

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
            content = watch.content(number % 60 == 59, picture.data(), in_no_new_scene);
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
void draw_moved(uint8_t* luma, const Motion& motion, uint32_t number)
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
// and no better picture; and a film that is encoded as a screen, or at first.
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
    Bytes picture(layout.picture_bytes());
    for (const Motion& motion : motions) {
        ContentWatch watch(30, layout);
        Content content{};
        uint32_t as_screens = 0;
        for (uint32_t number = 0; number < 60; ++number) {
            // A page that changes once in half a second is no film.
            draw_moved(picture.data(), motion, number + number / 15 * 1000);
            watch.note({0, 90, 10});
            content = watch.content(false, picture.data(), in_no_new_scene);
            as_screens += content == Content::screens;
        }
        EXPECT_EQ(content, motion.content) << motion.name;
        EXPECT_EQ(as_screens, motion.content == Content::film ? 2u : 60u) << motion.name;
    }
}

/** A photograph in lines `top` to `bottom` and columns 0 to `right`, on white paper with letters. */
Bytes photograph_in(uint32_t right, uint32_t top, uint32_t bottom)
{
    Bytes picture(layout.picture_bytes()), page(layout.picture_bytes(), 235);
    draw(picture.data(), layout, 1);
    for (uint32_t y = 0; y < layout.lines; ++y)
        for (uint32_t x = 0; x < layout.stride; ++x) {
            uint8_t& pixel = page[size_t{y} * layout.stride + x];
            if (x < right && y >= top && y < bottom)
                pixel = picture[size_t{y} * layout.stride + x];
            else if (x % 64 < 40 && y % 20 < 10 && (x * 7 + y * 3) % 5 == 0)
                pixel = 60;
        }
    return page;
}

// Catches a film that is taken for a screen because of its black bars, and a page or a video in a
// window that gets the settings for film.
TEST(PictureLook, TellsFilmsFromScreens)
{
    constexpr uint32_t wide = 176, high = 160;
    Bytes with_bars = photograph_in(wide, high / 8, high * 7 / 8);
    std::fill_n(with_bars.begin(), wide * high / 8, uint8_t{16});
    std::fill_n(with_bars.begin() + wide * high * 7 / 8, wide * high / 8, uint8_t{16});
    const struct {
        const char* name;
        Bytes picture;
        bool film;
    } looks[] = {
        {"a photograph", photograph_in(wide, 0, high), true},
        {"a film with black bars", with_bars, true},
        {"a photograph and a small window", photograph_in(wide, 0, high * 7 / 8), true},
        {"a photograph behind a page", photograph_in(wide, 0, high / 2), false},
        {"a video in a quarter", photograph_in(wide / 2, 0, high / 2), false},
        {"a page", photograph_in(0, 0, 0), false},
        {"nothing", Bytes(layout.picture_bytes(), 128), false},
    };
    for (const auto& [name, picture, film] : looks)
        EXPECT_EQ(looks_like_film(picture.data(), layout), film) << name;
}

// Catches a film that begins with the settings for screens, a photograph that keeps those for film
// or gets them again and again, and a small part of the screen that decides for all of it.
TEST(ContentWatch, BelievesANewPictureThatLooksLikeAFilmUpToTheNextKeyFrame)
{
    const Bytes page = photograph_in(0, 0, 0);
    Bytes photograph = photograph_in(176, 0, 160);
    const auto part = [](uint32_t lines) {
        return std::vector<PictureRectangle>{{0, 0, {layout.stride, lines}}};
    };
    const std::vector<PictureRectangle> nothing, third = part(53), bars = part(120);
    const auto everything = std::nullopt;
    // percent of macroblocks that are not skipped; -1 is a picture like the last one
    const struct {
        const char* name;
        const Bytes& picture;
        ChangedRectangles changed;
        int busy, pictures;
        Content content;
    } stretches[] = {
        {"a page at first", page, everything, -1, 1, Content::screens},
        {"a photograph in a part", photograph, third, 20, 3, Content::screens},
        {"a film with bars", photograph, bars, 20, 1, Content::film},
        {"its key frame and after", photograph, bars, 20, 80, Content::film},
        {"its pause, in which everything counts as changed", photograph, everything, 0, 215,
         Content::screens},
        {"a page", page, everything, 0, 1, Content::screens},
        {"a photograph", photograph, everything, 0, 1, Content::film},
        {"which stands still", photograph, nothing, -1, 57, Content::film},
        {"up to the key frame", photograph, nothing, -1, 1, Content::screens},
        {"a page", page, everything, 0, 1, Content::screens},
        {"the next photograph", photograph, everything, 0, 1, Content::screens},
        {"and others", photograph, everything, 0, 59, Content::screens},
        {"a film", photograph, everything, 100, 20, Content::film},
        {"a page, up to a key frame", page, nothing, -1, 39, Content::screens},
        {"the next film", photograph, everything, 40, 1, Content::film},
    };
    ContentWatch watch(30, layout);
    uint32_t number = 0;
    for (const auto& [name, picture, changed, busy, pictures, expected] : stretches) {
        Content content{};
        for (int i = 0; i < pictures; ++i, ++number) {
            if (busy > 0)
                draw(photograph.data(), layout, number);
            content = watch.content(number % 60 == 59, picture.data(), changed);
            if (busy < 0)
                watch.note_unchanged();
            else
                watch.note({0, static_cast<uint32_t>(busy), static_cast<uint32_t>(100 - busy)});
        }
        EXPECT_EQ(content, expected) << name << ", up to picture " << number;
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

// Catches a change of settings without a key frame, or later than at the first picture of a film;
// two key frames in turn, whose idr_pic_id may be equal; another distance of the key frames behind
// them; and parameter sets that change with them: a movie file has those of its first frame only.
TEST(X264EncoderContent, ChangesItsSettingsAtAKeyFrameWithTheSameParameterSets)
{
    const struct {
        uint32_t profile, film_from, changes_at;
    } recordings[] = {{0, 20, 20}, {66, 20, 20}, {77, 20, 20}, {100, 20, 20}, {0, 1, 2}, {0, 0, 0}};
    for (const auto& [profile, film_from, changes_at] : recordings) {
        SCOPED_TRACE(std::to_string(profile) + ", a film from " + std::to_string(film_from));
        const auto encoder =
            X264Encoder::open({{176, 160}, layout, 30, EncoderRate::of(0), profile, 0, false});
        Bytes picture = photograph_in(0, 0, 0);
        std::set<Bytes> sets;
        std::vector<uint32_t> keys, with_motion_between_pixels, without;
        for (uint32_t number = 0; number < 260; ++number) {
            // a page, then a film, then a small spot that moves
            if (number >= film_from && number < 60)
                draw(picture.data(), layout, number);
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
        std::vector<uint32_t> expected{0};
        for (uint32_t key = changes_at; key < 260; key += 60)
            if (key > 0)
                expected.push_back(key);
        EXPECT_EQ(keys, expected);
        EXPECT_EQ(with_motion_between_pixels, (std::vector<uint32_t>{changes_at}));
        std::vector<uint32_t> screens{changes_at + 180};
        if (changes_at > 0)
            screens.insert(screens.begin(), 0);
        EXPECT_EQ(without, screens);
        // one of the sequence, x264's of the picture and that of repetitions
        EXPECT_EQ(sets.size(), 3u);
    }
}

} // namespace
