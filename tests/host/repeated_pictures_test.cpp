#include "encoder/repeated_pictures.h"

#include "encoder/raw_bits.h"
#include "encoder/x264_encoder.h"
#include "helpers.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <span>
#include <string>
#include <unistd.h>
#include <vector>

namespace zu3host {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t width = 176, height = 160;
constexpr size_t i420_bytes = width * height * 3 / 2;

/** Whether a unit's first slice, behind a delimiter, names the second picture parameter set. */
bool is_repetition(const AccessUnit& unit)
{
    constexpr size_t slice = 6 + 5;
    constexpr uint8_t codes_0_5_1 = 0b1'00110'01;
    return unit.size > slice && unit.data[slice] == codes_0_5_1;
}

EncoderSettings settings_of(uint32_t profile, EncoderRate rate = EncoderRate::of(0))
{
    return {{width, height}, PictureLayout::of(width, height), 30, rate, profile, 0, false};
}

/** A picture with noise, so that nothing in it is skipped by chance. */
Bytes drawn(uint32_t number)
{
    std::mt19937 random(number);
    Bytes picture(PictureLayout::of(width, height).picture_bytes(), 128);
    for (uint32_t i = 0; i < width * height; ++i)
        picture[i] = static_cast<uint8_t>(60 + (i + 5 * number) / 16 % 11 * 12 + random() % 8);
    return picture;
}

/** A picture that differs from others of its kind in its first two rows of macroblocks only. */
Bytes drawn_in_part(uint32_t number)
{
    Bytes picture = drawn(1);
    const Bytes other = drawn(number);
    std::copy_n(other.begin(), width * 32, picture.begin());
    return picture;
}

/** A file that is gone at the end of its test. */
class StreamFile {
public:
    explicit StreamFile(const Bytes& stream)
        : path_(testing::TempDir() + "repeated_" + std::to_string(getpid()) + "_" +
                std::to_string(count_++) + ".h264")
    {
        std::ofstream(path_, std::ios::binary)
            .write(reinterpret_cast<const char*>(stream.data()),
                   static_cast<std::streamsize>(stream.size()));
    }
    ~StreamFile() { unlink(path_.c_str()); }
    StreamFile(const StreamFile&) = delete;
    StreamFile& operator=(const StreamFile&) = delete;

    /** The pictures in I420, as the command's standard output gives them; %s is the file. */
    std::vector<Bytes> decoded_by(const std::string& before, const std::string& behind) const
    {
        FILE* pipe = popen((before + path_ + behind).c_str(), "r");
        std::vector<Bytes> pictures;
        Bytes picture(i420_bytes);
        while (pipe && fread(picture.data(), 1, picture.size(), pipe) == picture.size())
            pictures.push_back(picture);
        EXPECT_EQ(pipe ? pclose(pipe) : -1, 0) << before;
        return pictures;
    }

private:
    static inline int count_ = 0;
    std::string path_;
};

std::vector<Bytes> decoded_by_ffmpeg(const Bytes& stream)
{
    return StreamFile(stream).decoded_by("ffmpeg -v error -xerror -err_detect explode -i ",
                                         " -fps_mode passthrough -pix_fmt yuv420p -f rawvideo -");
}

std::vector<Bytes> decoded_by_openh264(const Bytes& stream)
{
    return StreamFile(stream).decoded_by("gst-launch-1.0 -q filesrc location=",
                                         " ! h264parse ! openh264dec ! fdsink fd=1");
}

struct CloseEncoder {
    void operator()(x264_t* encoder) const { x264_encoder_close(encoder); }
};

/** Two streams of one x264: its own, and one with repetitions at random places. */
struct Streams {
    Bytes plain, with_repetitions;
    // for each picture of the second stream, which one of the first it shows
    std::vector<size_t> shown;
};

Streams random_streams(uint32_t profile, int slices, uint32_t seed)
{
    X264Log log;
    x264_param_t parameters = x264_parameters_of(settings_of(profile), Content::screens, log);
    parameters.i_threads = slices;
    const std::unique_ptr<x264_t, CloseEncoder> encoder(x264_encoder_open(&parameters));
    const auto repetitions = RepeatedPictures::into(encoder.get());
    EXPECT_TRUE(repetitions);
    std::mt19937 random(seed);
    Streams streams;
    Bytes picture = drawn(seed);
    const auto append = [](Bytes& to, std::span<const uint8_t> bytes) {
        to.insert(to.end(), bytes.begin(), bytes.end());
    };
    for (size_t encoded = 0; streams.shown.size() < 150;) {
        if (encoded > 0 && random() % 2 == 0) {
            append(streams.with_repetitions, repetitions->repeat());
            streams.shown.push_back(encoded - 1);
            continue;
        }
        if (random() % 3 == 0)
            picture = drawn(static_cast<uint32_t>(random()));
        x264_picture_t in, out;
        x264_picture_init(&in);
        in.img.i_csp = X264_CSP_NV12;
        in.img.i_plane = 2;
        in.img.plane[0] = picture.data();
        in.img.plane[1] = picture.data() + width * height;
        in.img.i_stride[0] = in.img.i_stride[1] = static_cast<int>(width);
        in.i_pts = static_cast<int64_t>(encoded++);
        in.i_type = random() % 16 == 0 ? X264_TYPE_KEYFRAME : X264_TYPE_AUTO;
        x264_nal_t* units = nullptr;
        int count = 0;
        const int size = x264_encoder_encode(encoder.get(), &units, &count, &in, &out);
        append(streams.plain, {units[0].p_payload, static_cast<size_t>(size)});
        append(streams.with_repetitions, repetitions->pass_on({units, static_cast<size_t>(count)}));
        streams.shown.push_back(encoded - 1);
    }
    return streams;
}

// Catches a stream that a decoder refuses, or that drifts from x264's, behind any repetition.
TEST(RepeatedPictures, ShowWhatX264AloneShows)
{
    for (const uint32_t profile : {66, 77, 100})
        for (const int slices : {1, 3}) {
            SCOPED_TRACE(testing::Message() << "profile " << profile << ", slices " << slices);
            const Streams streams = random_streams(profile, slices, profile + unsigned(slices));
            const std::vector<Bytes> plain = decoded_by_ffmpeg(streams.plain);
            const std::vector<Bytes> decoded[] = {decoded_by_ffmpeg(streams.with_repetitions),
                                                  decoded_by_openh264(streams.with_repetitions)};
            for (const auto& pictures : decoded) {
                ASSERT_EQ(pictures.size(), streams.shown.size());
                for (size_t i = 0; i < pictures.size(); ++i)
                    ASSERT_TRUE(pictures[i] == plain.at(streams.shown[i])) << "picture " << i;
            }
        }
}

// Catches repetitions in streams without room for them: several references or B pictures.
TEST(RepeatedPictures, AreRefusedWhereTheStreamHasNoPlaceForThem)
{
    X264Log log;
    x264_param_t more_references = x264_parameters_of(settings_of(100), Content::screens, log);
    more_references.i_frame_reference = 3;
    x264_param_t b_pictures = x264_parameters_of(settings_of(100), Content::screens, log);
    b_pictures.i_bframe = 2;
    for (x264_param_t* parameters : {&more_references, &b_pictures}) {
        const std::unique_ptr<x264_t, CloseEncoder> encoder(x264_encoder_open(parameters));
        EXPECT_FALSE(RepeatedPictures::into(encoder.get()));
    }
}

ChangedRectangles changes_of(bool unchanged)
{
    return unchanged ? ChangedRectangles(std::in_place) : std::nullopt;
}

/** The product's encoder with pictures of this test. */
struct StillEncoder {
    explicit StillEncoder(EncoderRate rate = EncoderRate::of(0))
        : encoder(X264Encoder::open(settings_of(100, rate)))
    {
    }
    AccessUnit encode(uint32_t number, bool unchanged, bool as_key = false)
    {
        return encode(drawn(number), unchanged, as_key);
    }
    AccessUnit encode(Bytes picture, bool unchanged, bool as_key = false)
    {
        const auto unit = encoder->encode(picture.data(), as_key, changes_of(unchanged));
        stream.insert(stream.end(), unit->data, unit->data + unit->size);
        return *unit;
    }
    /** Shows one picture until a repetition comes, which must be soon. */
    void settle()
    {
        int pictures = 1;
        for (encode(1, false); !is_repetition(encode(1, true)); ++pictures)
            ASSERT_LT(pictures, 40);
    }
    std::unique_ptr<X264Encoder> encoder;
    Bytes stream;
};

// Catches a still picture that costs as much as a moving one, key frames of it that come for
// nothing, and ones that are put off although the picture moves or the stream is live: a player
// could not seek, or not join for long.
TEST(X264EncoderStill, RepeatsASettledPictureAndPutsOffItsKeyFrames)
{
    StillEncoder still;
    const struct {
        int pictures;
        bool unchanged, live;
        std::vector<int> keys;
    } stretches[] = {{1, false, false, {0}},
                     {200, true, false, {}},
                     {70, false, false, {0, 60}},
                     {400, true, false, {290}},
                     {150, true, true, {1, 61, 121}}};
    size_t repetitions = 0, pictures = 0;
    uint32_t shown = 0;
    for (const auto& [count, unchanged, live, keys] : stretches) {
        std::vector<int> found;
        for (int i = 0; i < count; ++i, ++pictures) {
            shown += !unchanged;
            const AccessUnit unit = still.encode(drawn_in_part(shown), unchanged);
            if (unit.key)
                found.push_back(i);
            if (live)
                still.encoder->keep_distance_of_key_frames();
            repetitions += is_repetition(unit);
        }
        EXPECT_EQ(found, keys) << "after " << pictures - size_t(count) << " pictures";
    }
    EXPECT_GT(repetitions, 600u);
    EXPECT_EQ(decoded_by_ffmpeg(still.stream).size(), pictures);
}

// Catches pictures without a change in a video that cost as much as the others, and a stream that
// decoders read otherwise behind them.
TEST(X264EncoderStill, IsNotRefinedBetweenThePicturesOfAVideo)
{
    StillEncoder still;
    still.encode(drawn_in_part(0), false);
    int repetitions = 0;
    for (uint32_t number = 1; number < 150; ++number) {
        const bool unchanged = number % 5 == 0;
        repetitions += is_repetition(still.encode(drawn_in_part(number - unchanged), unchanged));
    }
    EXPECT_GT(repetitions, 25) << "of 29";
    const std::vector<Bytes> pictures = decoded_by_ffmpeg(still.stream);
    EXPECT_EQ(pictures.size(), 150u);
    EXPECT_TRUE(pictures == decoded_by_openh264(still.stream));
}

// Catches a repetition in place of what was asked for.
TEST(X264EncoderStill, EncodesWhatIsMoreThanARepetition)
{
    StillEncoder still;
    still.settle();
    EXPECT_GT(still.encode(2, false).size, 1000u) << "a changed picture";
    still.settle();
    EXPECT_TRUE(still.encode(1, true, true).key) << "a key frame on request";
    still.settle();
    still.encoder->set_rate(EncoderRate::of(2048));
    EXPECT_TRUE(still.encode(1, true).key) << "a rate in place of constant quality";
    EXPECT_EQ(decoded_by_ffmpeg(still.stream).size(), decoded_by_openh264(still.stream).size());
}

// Catches a picture that stays coarse at a low rate although bits are left, one that costs bits
// without a visible change, and a live stream that a viewer cannot join.
TEST(X264EncoderStill, IsRepeatedAtARateOnceNothingCanBeSeenOfRefinement)
{
    for (const bool ample : {false, true}) {
        StillEncoder still({false, ample ? 4000 : 40});
        still.encode(1, false);
        std::vector<size_t> keys;
        size_t repetitions = 0;
        for (size_t i = 1; i < 150; ++i) {
            const AccessUnit unit = still.encode(1, true);
            if (unit.key)
                keys.push_back(i);
            repetitions += is_repetition(unit);
        }
        EXPECT_EQ(repetitions > 80, ample);
        EXPECT_EQ(repetitions > 0, ample);
        EXPECT_EQ(keys, (std::vector<size_t>{60, 120}));
        EXPECT_EQ(decoded_by_ffmpeg(still.stream).size(), 150u);
    }
}

double squared_error(const Bytes& shown, const Bytes& original)
{
    double sum = 0;
    for (size_t i = 0; i < width * height; ++i)
        sum += (shown[i] - original[i]) * (shown[i] - original[i]);
    return sum / (width * height);
}

// Catches repetitions that begin before the picture has its quality or x264 has its bits.
TEST(X264EncoderStill, IsRefinedBeforeItIsRepeated)
{
    for (const int kilobits : {60, 4500}) {
        SCOPED_TRACE(kilobits);
        StillEncoder still({true, kilobits});
        still.encode(1, false);
        size_t pictures = 1;
        for (; !is_repetition(still.encode(1, true)); ++pictures)
            ASSERT_LT(pictures, 100u);
        EXPECT_LE(still.stream.size() * 8 * 30, pictures * static_cast<size_t>(kilobits) * 1000);
        // The first picture has 3.0; refined it has 2.81 and 2.86.
        EXPECT_LT(squared_error(decoded_by_ffmpeg(still.stream).back(), drawn(1)), 2.9);
    }
}

// Catches a start code within a unit, and a unit that reads otherwise than it was written.
TEST(RawBits, AreEscapedSoThatNoStartCodeIsInThem)
{
    const Bytes texts[] = {{0, 0, 0, 0, 0, 1}, {0, 0, 1, 0, 0, 2}, {0, 0, 3, 0, 0, 4},
                           {1, 0, 0},          {5, 0, 0, 3, 3},    {0, 1, 0, 0, 0}};
    for (const Bytes& text : texts) {
        Bytes escaped, again;
        append_escaped(escaped, text);
        append_unescaped(again, escaped);
        EXPECT_NE(escaped.back(), 0);
        again.resize(text.size());
        EXPECT_EQ(again, text);
        const Bytes forbidden[] = {{0, 0, 0}, {0, 0, 1}, {0, 0, 2}};
        for (const Bytes& code : forbidden)
            EXPECT_EQ(std::search(escaped.begin(), escaped.end(), code.begin(), code.end()),
                      escaped.end());
    }
}

// Catches a truncated or foreign parameter set that is read beyond its end.
TEST(RawBits, ReadZerosBeyondTheirEnd)
{
    const Bytes rbsp = {0b0'0100'011, 0x00};
    RawBitReader bits(rbsp);
    EXPECT_EQ(bits.golomb(), 3u);
    EXPECT_EQ(bits.number(3), 3u);
    EXPECT_FALSE(bits.overrun());
    EXPECT_EQ(bits.golomb(), UINT32_MAX);
    EXPECT_TRUE(bits.overrun());
}

} // namespace
} // namespace zu3host
