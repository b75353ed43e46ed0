// Audio capture: exact samples and levels, sound in its place in time, and a sound server that comes and
// goes.
#include "audio/capture_session.h"
#include "audio/monotonic_time.h"
#include "audio/session_reader.h"
#include "audio/sound_placement.h"
#include "host/sound_server.h"
#include "statistics/counters.h"
#include "zu3/acap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <complex>
#include <filesystem>
#include <random>
#include <thread>

using namespace zu3host;

namespace {

using Samples = std::vector<int16_t>;

constexpr int64_t deadline_us = 20'000'000;

template <typename Condition> bool wait_until(Condition condition)
{
    const int64_t until = monotonic_us() + deadline_us;
    while (!condition()) {
        if (monotonic_us() > until)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

size_t threads()
{
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

/** The phase of a tone in each 10 ms of one channel's samples; a gap or a repetition shows as a step. */
double greatest_step(const Samples& stereo, double frequency)
{
    constexpr size_t block = 480;
    double greatest = 0, before = 0;
    for (size_t start = 0; start + block <= stereo.size() / 2; start += block) {
        std::complex<double> sum = 0;
        for (size_t n = start; n < start + block; ++n)
            sum += std::polar<double>(stereo[2 * n],
                                      -2 * std::numbers::pi * frequency * static_cast<double>(n) / 48000);
        if (start > 0)
            greatest =
                std::max(greatest, std::abs(std::remainder(std::arg(sum) - before, 2 * std::numbers::pi)));
        before = std::arg(sum);
    }
    return greatest;
}

double power(const Samples& stereo, double frequency)
{
    std::complex<double> sum = 0;
    for (size_t n = 0; n < stereo.size() / 2; ++n)
        sum += std::polar<double>(stereo[2 * n],
                                  -2 * std::numbers::pi * frequency * static_cast<double>(n) / 48000);
    return std::abs(sum);
}

int peak(const Samples& samples)
{
    int greatest = 0;
    for (const int16_t sample : samples)
        greatest = std::max(greatest, std::abs(int{sample}));
    return greatest;
}

/** An audio capture through the contract. */
class Capture {
public:
    explicit Capture(const char* setting)
    {
        setting ? setenv("ZU3_AUDIO", setting, 1) : unsetenv("ZU3_AUDIO");
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
    /** Waits for so many frames and reads them, a piece at a time, so that none is lost. */
    Samples gather(size_t frames) const
    {
        Samples all;
        const bool whole = wait_until([&] {
            const Samples piece = read(static_cast<u32>(std::min<size_t>(frames - all.size() / 2, 9600) * 4));
            all.insert(all.end(), piece.begin(), piece.end());
            return all.size() == frames * 2;
        });
        EXPECT_TRUE(whole);
        return all;
    }
    /** Reads until 50 ms that are loud, or silent, throughout were heard. */
    bool wait_for(bool loud) const
    {
        return wait_until([&] { return (peak(gather(2400)) > 1000) == loud; });
    }

    u32 handle = 0;
};

// --- what needs no server
// -------------------------------------------------------------------------------------

TEST(Tone, IsExactAndItsLevelFollowsTheClock)
{
    Capture capture("tone");
    EXPECT_EQ(capture.level(), 0u) << "before the start";
    const int64_t before = monotonic_us();
    capture.start();
    const int64_t after = monotonic_us();
    ASSERT_TRUE(wait_until([&] { return capture.level() >= 48000; }));

    const int64_t asked = monotonic_us();
    const u32 level = capture.level();
    EXPECT_GE(level + 4, (asked - after) * 6 / 125 * 4) << "192,000 bytes a second, none is missing";
    EXPECT_LE(level, (monotonic_us() - before) * 6 / 125 * 4) << "and none is too many";

    const Samples samples = capture.read(48000);
    ASSERT_EQ(samples.size(), 24000u);
    const auto wanted = [](size_t n) {
        return std::lround(16000 * std::sin(2 * std::numbers::pi * 440 * static_cast<double>(n) / 48000));
    };
    size_t first = 0; // the reader was made a moment after the tone began
    while (first < 1200 && !(wanted(first) == samples[0] && wanted(first + 1) == samples[2]))
        ++first;
    for (size_t n = 0; n < samples.size() / 2; ++n) {
        ASSERT_NEAR(samples[2 * n], wanted(first + n), 1) << n;
        ASSERT_EQ(samples[2 * n], samples[2 * n + 1]) << n;
    }
    EXPECT_NEAR(counters().sound_level, 16000, 2);
}

TEST(AudioCapture, ScalesByTheVolumeAndTakesWholeFrames)
{
    Capture capture("tone");
    EXPECT_EQ(ZU_ACAP_SetVolume(capture.handle, 50), ZU_OK);
    capture.start();
    EXPECT_NEAR(peak(capture.gather(4800)), 8000, 1);
    ASSERT_TRUE(wait_until([&] { return capture.level() >= 8; }));
    EXPECT_EQ(capture.read(7).size(), 2u);
    EXPECT_EQ(capture.read(0).size(), 0u);
    EXPECT_EQ(ZU_ACAP_Stop(capture.handle), ZU_OK);
    EXPECT_EQ(capture.level(), 0u);
    EXPECT_EQ(counters().sound_level, 0u);
}

TEST(AudioCapture, RefusesWhatItCannotDo)
{
    Capture capture("silence");
    u32 value = 0;
    ZU_ACAP_ReadResult_t result{};
    const ZU_ACAP_ReadRequest_t nowhere{nullptr, 4};
    const ZU_ACAP_StartParams_t start{};
    for (const u32 answer : {ZU_ACAP_SetVolume(capture.handle, 101), ZU_ACAP_Open(nullptr, &value),
                             ZU_ACAP_GetAttr(capture.handle, 2, 0, &value),
                             ZU_ACAP_GetAttr(capture.handle, ZU_ACAP_ATTR_BUFFER_LEVEL, 0, nullptr),
                             ZU_ACAP_Read(capture.handle, &nowhere, &result), ZU_ACAP_Start(0, &start),
                             ZU_ACAP_Stop(capture.handle + 1), ZU_ACAP_Close(0)})
        EXPECT_EQ(answer, ZU_INVALID_ARGUMENT);
}

TEST(AudioCapture, AnUnknownSourceIsSilence)
{
    Capture capture("gramophone");
    capture.start();
    EXPECT_EQ(peak(capture.gather(4800)), 0);
}

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
        EXPECT_NEAR(samples[2], 16000 * std::sin(2 * std::numbers::pi * 440 / 48000), 1)
            << "from the start on";
        EXPECT_EQ(ZU_ACAP_Stop(first.handle), ZU_OK);
        EXPECT_TRUE(audio_capture_running());
        ASSERT_TRUE(wait_until([&] { return reader->level() >= 400; })) << "the second still runs";
        EXPECT_EQ(ZU_ACAP_Stop(second.handle), ZU_OK);
        EXPECT_FALSE(audio_capture_running());
        const size_t left = reader->level();
        EXPECT_GE(left, 400u) << "what was heard before the stop";
        EXPECT_EQ(reader->read(samples.data(), std::min<size_t>(left, 96000)), std::min<size_t>(left, 96000));
    }
}

// --- sessions by a clock of the test's
// ------------------------------------------------------------------------

int64_t test_clock = 0;
std::shared_ptr<CaptureSession> test_session;

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
    EXPECT_EQ(joined.time_of_next_us(), 1'600'000) << "begins where it was made";
    EXPECT_EQ(early.read(samples.data(), 400'000), 28'800u * 4);
    EXPECT_EQ(counters().audio_bytes_lost, lost);

    EXPECT_EQ(late.level(), 48'000u * 4) << "one second is kept";
    EXPECT_EQ(counters().audio_bytes_lost, lost + 9'600 * 4);
    EXPECT_EQ(late.time_of_next_us(), 1'200'000);
    EXPECT_EQ(late.read(samples.data(), 8), 8u);
    EXPECT_NEAR(samples[2], 16000 * std::sin(2 * std::numbers::pi * 440 * 9601 / 48000), 1);

    test_clock += 3'600'000'000; // an hour later, e.g. after the machine slept
    EXPECT_EQ(late.level(), 48'000u * 4);
    test_session.reset();
}

// --- pieces from a server, in their place
// ---------------------------------------------------------------------

/** A server whose clock runs `ppm` fast, seen with a jitter; frame n carries n, so that seams show. */
class PieceStream {
public:
    PieceStream(double ppm, double jitter_us)
        : us_per_frame_(1e6 / 48000 / (1 + ppm * 1e-6)), jitter_(-jitter_us, jitter_us)
    {
    }
    void deliver(SoundTimeline& timeline, SoundPlacement& placement, bool hole = false)
    {
        Samples piece(960 * 2);
        for (size_t n = 0; n < 960; ++n)
            piece[2 * n] = piece[2 * n + 1] =
                static_cast<int16_t>((sent_ + static_cast<int64_t>(n)) % 30000 + 1);
        placement.place(timeline, hole ? nullptr : piece.data(), 960,
                        static_cast<int64_t>(heard_us() + jitter_(random_)));
        sent_ += 960;
    }
    void skip(int64_t frames) { sent_ += frames; }
    double heard_us() const { return static_cast<double>(sent_) * us_per_frame_; }

private:
    double us_per_frame_;
    std::mt19937 random_{1};
    std::uniform_real_distribution<double> jitter_;
    int64_t sent_ = 0;
};

TEST(SoundPlacement, FollowsADriftingClockWithoutASeam)
{
    struct Case {
        double ppm, jitter_us;
        bool untouched;
    };
    for (const Case& c : {Case{0, 400, true}, {0, 5000, false}, {150, 1000, false}, {-150, 1000, false}}) {
        SoundTimeline timeline(0);
        SoundPlacement placement;
        PieceStream stream(c.ppm, c.jitter_us);
        double greatest = 0;
        for (int piece = 0; piece < 30'000; ++piece) { // ten minutes
            stream.deliver(timeline, placement);
            const double off = static_cast<double>(timeline.time_us(timeline.end())) - stream.heard_us();
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
        EXPECT_LT(greatest, 7500) << c.ppm << " ppm: a beat of 10 ms beside the picture is too much";
    }
}

TEST(SoundPlacement, FillsWhatIsMissingAndDropsWhatComesTooLate)
{
    SoundTimeline timeline(0);
    SoundPlacement placement;
    PieceStream stream(0, 0);
    Samples frame(2);
    const auto at = [&](int64_t n) {
        timeline.copy(n, 1, frame.data());
        return int{frame[1]};
    };
    stream.skip(4800); // the first sound comes 100 ms after the start
    stream.deliver(timeline, placement);
    EXPECT_EQ(at(4799), 0);
    EXPECT_EQ(at(4800), 4801);

    stream.deliver(timeline, placement, true);
    EXPECT_EQ(at(5760), 0);
    EXPECT_EQ(at(6719), 0);
    stream.deliver(timeline, placement);
    EXPECT_EQ(at(6720), 6721);

    // The server stalled, silence was filled in, and then it delivers the whole of the pause.
    timeline.append(nullptr, 960 + 480);
    EXPECT_EQ(timeline.end(), 9120);
    for (int piece = 0; piece < 3; ++piece)
        stream.deliver(timeline, placement);
    EXPECT_EQ(at(9119), 0);
    EXPECT_EQ(at(9120), 9121);
    EXPECT_EQ(timeline.end(), 7680 + 3 * 960);

    // The server jumps on: within a second all is in its place again.
    stream.skip(9600);
    for (int piece = 0; piece < 50; ++piece)
        stream.deliver(timeline, placement);
    EXPECT_EQ(at(timeline.end() - 1), (timeline.end() - 1) % 30000 + 1);
}

// --- a server of the test's own
// -------------------------------------------------------------------------------

class Pulse : public testing::Test {
protected:
    void SetUp() override { counters().sound_lost = 0; }

    SoundServerPlace place_;
};

TEST_F(Pulse, WithoutAServerThereIsSilenceAtOnce)
{
    size_t before = 0;
    for (int run = 0; run < 2;
         ++run) { // the first leaves behind what a sanitizer starts with the first thread
        Capture capture(nullptr);
        const int64_t asked = monotonic_us();
        capture.start();
        EXPECT_LT(monotonic_us() - asked, 200'000) << "the server is not waited for";
        EXPECT_EQ(peak(capture.gather(9600)), 0);
        EXPECT_EQ(counters().sound_lost, 0u);
        EXPECT_EQ(ZU_ACAP_Stop(capture.handle), ZU_OK);
        before = run == 0 ? threads() : before;
    }
    EXPECT_TRUE(wait_until([&] { return threads() <= before; })) << "no thread is left";
}

TEST_F(Pulse, HearsWhatIsPlayedWhole)
{
    const Program server(place_.server());
    const Program player(place_.player(440, "first"));
    Capture capture(nullptr);
    capture.start(); // perhaps before the server is up
    ASSERT_TRUE(capture.wait_for(true));
    capture.gather(48000); // the sink's own start
    // A server that is kept waiting for half a second, as on a busy machine, delivers all of it later.
    server.signal(SIGSTOP);
    const int64_t stopped = monotonic_us();
    ASSERT_TRUE(wait_until([&] { return monotonic_us() - stopped > 500'000; }));
    server.signal(SIGCONT);
    const Samples samples = capture.gather(3 * 48000);
    EXPECT_LT(greatest_step(samples, 440), 0.1);

    double strongest = 0;
    for (double frequency = 400; frequency <= 480; frequency += 0.5)
        strongest = power(samples, frequency) > power(samples, strongest) ? frequency : strongest;
    EXPECT_NEAR(strongest, 440, 1);
    EXPECT_NEAR(counters().sound_level, 12000, 400);
}

TEST_F(Pulse, SilenceFollowsAServerThatStopsOrDies)
{
    Program server(place_.server());
    const Program player(place_.player(440, "first"));
    Capture capture("pulse");
    capture.start();
    ASSERT_TRUE(capture.wait_for(true));

    server.signal(SIGSTOP);
    EXPECT_TRUE(capture.wait_for(false)) << "a server that hangs";
    server.signal(SIGCONT);
    EXPECT_TRUE(capture.wait_for(true)) << "and comes back to life";

    server.kill();
    EXPECT_TRUE(wait_until([&] { return capture.read(38400), counters().sound_lost == 1; }));
    EXPECT_TRUE(capture.wait_for(false));
    const int64_t from = monotonic_us();
    capture.gather(24000);
    EXPECT_NEAR(static_cast<double>(monotonic_us() - from), 500'000, 300'000) << "at the clock's rate";

    const Program next_server(place_.server());
    const Program next_player(place_.player(440, "first"));
    EXPECT_TRUE(capture.wait_for(true)) << "the next server is found";
}

TEST_F(Pulse, FollowsTheDefaultOutput)
{
    std::vector<std::string> words = place_.server();
    words.insert(words.end(), {"-L", "module-null-sink sink_name=second rate=48000"});
    const Program server(words);
    Capture capture("pulse");
    capture.start();
    const Program low(place_.player(440, "first")), high(place_.player(1000, "second"));
    ASSERT_TRUE(capture.wait_for(true));
    // An output's players follow the default as well, so that the other tone may be there too.
    const auto hears = [&](double frequency) { return power(capture.gather(4800), frequency) > 4800 * 3000; };
    EXPECT_TRUE(wait_until([&] { return hears(440) && !hears(1000); }));
    const Program choice({"pactl", "set-default-sink", "second"});
    EXPECT_TRUE(wait_until([&] { return hears(1000); }));
}

} // namespace
