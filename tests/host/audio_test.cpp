// Audio capture without a server: exact samples and levels, and sound in its place in time.
#include "audio/capture_session.h"
#include "audio/mixed_source.h"
#include "audio/row_start.h"
#include "audio/sound_placement.h"
#include "helpers.h"
#include "statistics/counters.h"
#include "zu3/acap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>

using namespace zu3host;

namespace {

using Samples = std::vector<int16_t>;

int peak(const Samples& samples)
{
    const auto [least, most] = std::minmax_element(samples.begin(), samples.end());
    return std::max(-int{*least}, int{*most});
}

/** Sample n of the tone that stands for sound. */
double tone(size_t n)
{
    return 16000 * std::sin(2 * std::numbers::pi * 440 * static_cast<double>(n) / 48000);
}

/** An audio capture through the contract. */
class Capture {
public:
    explicit Capture(const char* setting)
    {
        setenv("ZU3_AUDIO", setting, 1);
        const ZU_ACAP_OpenParams_t params{"acap_s", 0};
        EXPECT_EQ(ZU_ACAP_Open(&params, &handle), ZU_OK);
    }
    ~Capture() { ZU_ACAP_Close(handle); }

    void start()
    {
        const ZU_ACAP_StartParams_t params{};
        EXPECT_EQ(ZU_ACAP_Start(handle, &params), ZU_OK);
    }
    u32 level() const
    {
        u32 bytes = ~0u;
        EXPECT_EQ(ZU_ACAP_GetAttr(handle, ZU_ACAP_ATTR_BUFFER_LEVEL, 0, &bytes), ZU_OK);
        return bytes;
    }
    Samples read(u32 bytes) const
    {
        Samples samples(bytes / 2);
        const ZU_ACAP_ReadRequest_t request{samples.data(), bytes};
        ZU_ACAP_ReadResult_t result{};
        EXPECT_EQ(ZU_ACAP_Read(handle, &request, &result), ZU_OK);
        samples.resize(result.u32Size / 2);
        return samples;
    }
    /** Waits for so many frames and reads them. */
    Samples gather(u32 frames) const
    {
        EXPECT_TRUE(wait_until([&] { return level() >= frames * 4; }));
        return read(frames * 4);
    }

    u32 handle = 0;
};

// Catches a level of the scaled sound, frames that are cut, and sound before or after its time.
TEST(AudioCapture, ScalesByTheVolumeAndTakesWholeFrames)
{
    Capture capture("tone");
    EXPECT_EQ(ZU_ACAP_SetVolume(capture.handle, 50), ZU_OK);
    EXPECT_EQ(capture.level(), 0u) << "before the start";
    capture.start();
    EXPECT_NEAR(peak(capture.gather(4800)), 8000, 1);
    EXPECT_NEAR(counters().sound_level, 16000, 2) << "what is heard, whatever the volume";
    ASSERT_TRUE(wait_until([&] { return capture.level() >= 8; }));
    EXPECT_EQ(capture.read(7).size(), 2u);
    EXPECT_EQ(capture.read(0).size(), 0u);
    EXPECT_EQ(ZU_ACAP_Stop(capture.handle), ZU_OK);
    EXPECT_EQ(capture.level(), 0u);
    EXPECT_EQ(counters().sound_level, 0u);
}

// Catches a capture that fails for lack of a source, and a call on a handle or value that is none.
TEST(AudioCapture, IsSilentWithoutASourceAndRefusesWhatItCannotDo)
{
    Capture capture("gramophone");
    capture.start();
    EXPECT_EQ(peak(capture.gather(4800)), 0);
    u32 value = 0;
    const ZU_ACAP_StartParams_t start{};
    for (const u32 answer :
         {ZU_ACAP_SetVolume(capture.handle, 101), ZU_ACAP_GetAttr(capture.handle, 2, 0, &value),
          ZU_ACAP_Start(0, &start), ZU_ACAP_Stop(capture.handle + 1), ZU_ACAP_Close(0)})
        EXPECT_EQ(answer, ZU_INVALID_ARGUMENT);
}

// Catches a reader that dangles after a stop, misses the next capture, or loses sound at its end.
TEST(AudioCapture, ReadersOutliveTheCaptureAndFindTheNext)
{
    const auto reader = make_pcm_reader();
    Samples samples(48000);
    EXPECT_FALSE(audio_capture_running());
    EXPECT_EQ(reader->level(), 0u);
    for (int run = 0; run < 2; ++run) {
        Capture first("tone"), second("tone");
        first.start();
        second.start();
        ASSERT_TRUE(wait_until([&] { return reader->level() >= 400; }));
        ASSERT_EQ(reader->read(samples.data(), 400), 400u);
        EXPECT_NEAR(samples[2], tone(1), 1) << "from the start on";
        EXPECT_EQ(ZU_ACAP_Stop(first.handle), ZU_OK);
        EXPECT_TRUE(audio_capture_running());
        ASSERT_TRUE(wait_until([&] { return reader->level() >= 400; })) << "the second still runs";
        EXPECT_EQ(ZU_ACAP_Stop(second.handle), ZU_OK);
        EXPECT_FALSE(audio_capture_running());
        const size_t left = reader->level();
        EXPECT_GE(left, 400u) << "what was heard before the stop";
        EXPECT_EQ(reader->read(samples.data(), std::min<size_t>(left, 96000)),
                  std::min<size_t>(left, 96000));
    }
}

int64_t test_clock = 0;
std::shared_ptr<CaptureSession> test_session;

// Catches a slow reader that delays others, and a loss that is not counted or shifts the times.
TEST(SessionReader, LateOnesLoseTheOldestAndDisturbNoOther)
{
    test_clock = 1'000'000;
    test_session = std::make_shared<CaptureSession>([](SharedTimeline&) { return open_tone(); },
                                                    [] { return test_clock; }, 48000);
    const auto current = [] { return test_session; };
    SessionReader early(current), late(current);
    Samples samples(2 * 48000);
    const uint64_t lost = counters().audio_bytes_lost;

    test_clock += 600'000;
    EXPECT_EQ(early.read(samples.data(), 400'000), 28'800u * 4);
    SessionReader joined(current);
    test_clock += 600'000;
    EXPECT_EQ(joined.time_of_next_us(), 1'600'000) << "begins at its creation";
    EXPECT_EQ(early.read(samples.data(), 400'000), 28'800u * 4);
    EXPECT_EQ(counters().audio_bytes_lost, lost);

    EXPECT_EQ(late.level(), 48'000u * 4) << "one second is kept";
    EXPECT_EQ(counters().audio_bytes_lost, lost + 9'600 * 4);
    EXPECT_EQ(late.time_of_next_us(), 1'200'000);
    EXPECT_EQ(late.read(samples.data(), 8), 8u);
    EXPECT_NEAR(samples[2], tone(9601), 1);

    // an hour later, e.g. after the machine slept
    test_clock += 3'600'000'000;
    EXPECT_EQ(late.level(), 48'000u * 4);
    test_session.reset();
}

/** A server whose clock runs `ppm` fast and jitters; frame n carries n, so that seams show. */
struct PieceStream {
    PieceStream(double ppm, double jitter_us)
        : us_per_frame(1e6 / 48000 / (1 + ppm * 1e-6)), jitter(-jitter_us, jitter_us)
    {
    }
    void deliver(bool hole = false)
    {
        Samples piece;
        for (int64_t n = sent; n < sent + 960; ++n)
            piece.insert(piece.end(), 2, static_cast<int16_t>(n % 30000 + 1));
        placement.place(timeline, hole ? nullptr : piece.data(), 960,
                        static_cast<int64_t>(heard_us() + jitter(random)));
        sent += 960;
    }
    double heard_us() const { return static_cast<double>(sent) * us_per_frame; }

    double us_per_frame;
    std::mt19937 random{1};
    std::uniform_real_distribution<double> jitter;
    int64_t sent = 0;
    SoundTimeline timeline{0};
    SoundPlacement placement;
};

// Catches sound that drifts from the server's clock, or clicks when it is put right.
TEST(SoundPlacement, FollowsADriftingClockWithoutASeam)
{
    const struct {
        double ppm, jitter_us;
        bool untouched;
    } cases[] = {{0, 400, true}, {0, 5000, false}, {150, 1000, false}, {-150, 1000, false}};
    for (const auto& c : cases) {
        PieceStream stream(c.ppm, c.jitter_us);
        const SoundTimeline& timeline = stream.timeline;
        double greatest = 0;
        for (int piece = 0; piece < 30'000; ++piece) { // ten minutes
            stream.deliver();
            const double off =
                static_cast<double>(timeline.time_us(timeline.end())) - stream.heard_us();
            greatest = std::max(greatest, std::abs(off));
            Samples tail(961 * 2);
            const int64_t shown = std::min<int64_t>(timeline.end(), 961);
            timeline.copy(timeline.end() - shown, shown, tail.data());
            bool seam = false;
            for (int64_t n = 1; n < shown; ++n) {
                const int step = tail[2 * n] - tail[2 * n - 2];
                seam = seam || !(c.untouched ? step == 1 || step == -29999 : step <= 2);
            }
            ASSERT_FALSE(seam) << c.ppm << " ppm, piece " << piece;
        }
        EXPECT_LT(greatest, 7500) << c.ppm
                                  << " ppm: a beat of 10 ms beside the picture is too much";
    }
}

// Catches sound that is early or late behind a hole, a stall or a jump of the server.
TEST(SoundPlacement, FillsWhatIsMissingAndDropsWhatComesTooLate)
{
    PieceStream stream(0, 0);
    SoundTimeline& timeline = stream.timeline;
    Samples frame(2);
    const auto at = [&](int64_t n) {
        timeline.copy(n, 1, frame.data());
        return int{frame[1]};
    };
    // the first sound comes 100 ms after the start
    stream.sent += 4800;
    stream.deliver();
    EXPECT_EQ(at(4799), 0);
    EXPECT_EQ(at(4800), 4801);

    stream.deliver(true);
    EXPECT_EQ(at(5760), 0);
    EXPECT_EQ(at(6719), 0);
    stream.deliver();
    EXPECT_EQ(at(6720), 6721);

    // The server stalled, silence was filled in, and then it delivers the whole of the pause.
    timeline.append(nullptr, 960 + 480);
    EXPECT_EQ(timeline.end(), 9120);
    for (int piece = 0; piece < 3; ++piece)
        stream.deliver();
    EXPECT_EQ(at(9119), 0);
    EXPECT_EQ(at(9120), 9121);
    EXPECT_EQ(timeline.end(), 7680 + 3 * 960);

    // The server jumps on: within a second all is in its place again.
    stream.sent += 9600;
    for (int piece = 0; piece < 50; ++piece)
        stream.deliver();
    EXPECT_EQ(at(timeline.end() - 1), (timeline.end() - 1) % 30000 + 1);
}

TEST(Mix, AddsAndBendsTowardsFullScale)
{
    const struct {
        int16_t one, other;
        int least, most;
    } cases[] = {{1000, -3000, -2000, -2000},  {12000, 12000, 24000, 24000},
                 {20000, 20000, 26000, 32767}, {-20000, -20000, -32767, -26000},
                 {32767, 32767, 32700, 32767}, {-32768, -32768, -32767, -32700},
                 {32767, -32768, -1, -1},      {12288, 12300, 24580, 24588}};
    for (const auto& c : cases) {
        Samples samples{c.one};
        mix_into(samples, Samples{c.other});
        EXPECT_TRUE(samples[0] >= c.least && samples[0] <= c.most)
            << c.one << " and " << c.other << " make " << samples[0];
    }
}

/** Silence up to `lag_us` ago, then the value 1000. */
struct Steady : SoundSource {
    explicit Steady(int64_t lag) : lag_us(lag) {}
    void advance(SoundTimeline& timeline, int64_t now_us) override
    {
        const Samples some(2 * 480, 1000);
        for (int64_t left = 0; (left = timeline.frame_at(now_us - lag_us) - timeline.end()) > 0;)
            timeline.append(some.data(), std::min<int64_t>(left, 480));
    }
    int64_t lag_us;
};

TEST(Mix, GoesAsFarAsBothAndKeepsWhatATimelineKeeps)
{
    SoundTimeline timeline(0, 48000);
    const auto mix = open_mix(
        timeline, [](SharedTimeline&) { return std::make_unique<Steady>(0); },
        [](SharedTimeline&) { return std::make_unique<Steady>(100'000); });
    Samples frame(2);
    mix->advance(timeline, 500'000);
    EXPECT_EQ(timeline.end(), 19'200);
    timeline.copy(19'199, 1, frame.data());
    EXPECT_EQ(frame[0], 2000);
    EXPECT_EQ(counters().sound_level, 2000u) << "of the mix, not of its parts";
    mix->advance(timeline, 60'000'000);
    EXPECT_EQ(timeline.end(), 59'900 * 48);
    timeline.copy(timeline.end() - 48'000 + 4800, 1, frame.data());
    EXPECT_EQ(frame[1], 2000);
}

TEST(RowStart, WaitsForReportsThatAgreeOrForTheMiddleOfMany)
{
    const Samples piece(960 * 2, 7);
    RowStart start;
    for (const int64_t us : {100'000, 100'400, 99'900}) {
        start.report(us);
        start.keep(piece.data(), 960);
        EXPECT_FALSE(start.settled());
    }
    start.report(100'100);
    EXPECT_TRUE(start.settled());
    EXPECT_FALSE(start.jitters());
    EXPECT_EQ(start.samples().size(), 3 * piece.size());

    start.restart();
    EXPECT_FALSE(start.jitters());
    start.report(80'000); // the first one is off by more than a cycle
    for (int n = 0; n < 8; ++n) {
        EXPECT_FALSE(start.settled()) << n;
        start.report(100'000 + n % 4 * 5000);
        start.keep(n == 2 ? nullptr : piece.data(), 960);
    }
    EXPECT_FALSE(start.settled());
    start.keep(piece.data(), 960);
    EXPECT_TRUE(start.settled());
    EXPECT_TRUE(start.jitters());
    EXPECT_EQ(start.first_us(), 107'500);
    EXPECT_EQ(start.samples()[2 * 960 * 2], 0) << "a hole";

    start.restart();
    for (int n = 0; n < 250; ++n)
        start.keep(piece.data(), 960);
    EXPECT_FALSE(start.settled()) << "without a report";
    EXPECT_LE(start.samples().size(), 2u * 48000 * 2);
}

} // namespace
