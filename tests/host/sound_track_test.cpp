// Sound in recordings: its place against the pictures.
#include "multiplexer/sound_track.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

using namespace zu3host;

namespace {

/** Pieces of PCM with the times at which they were heard. */
struct ScriptedReader : PcmReader {
    struct Piece {
        int64_t time_us;
        std::vector<int16_t> samples;
    };
    size_t level() override
    {
        while (!pieces.empty() && pieces.front().samples.empty())
            pieces.pop_front();
        return pieces.empty() ? 0 : pieces.front().samples.size() * 2;
    }
    size_t read(void* dst, size_t size) override
    {
        size = std::min(size, level());
        if (size == 0)
            return 0;
        auto& [time_us, samples] = pieces.front();
        std::memcpy(dst, samples.data(), size);
        samples.erase(samples.begin(), samples.begin() + static_cast<ptrdiff_t>(size / 2));
        time_us += static_cast<int64_t>(size / pcm_frame_bytes) * 1000 / 48;
        return size;
    }
    int64_t time_of_next_us() override { return pieces.front().time_us; }
    std::deque<Piece> pieces;
};

/** Silence with a short burst around one sample, which may lie outside. */
std::vector<int16_t> burst_at(int sample, int samples)
{
    std::vector<int16_t> pcm;
    for (int i = 0; i < samples; ++i) {
        const double from_burst = i - sample;
        const double value =
            20000 * std::exp(-from_burst * from_burst / 3600) * std::cos(from_burst * 0.15);
        pcm.insert(pcm.end(), pcm_channels, static_cast<int16_t>(value));
    }
    return pcm;
}

/** Decodes the track and answers at which moment, microseconds, the burst is presented. */
double presented_burst(SoundTrack& track, int64_t until_us)
{
    const std::string name = testing::TempDir() + "sound_track_test." + std::to_string(getpid());
    std::ofstream file(name, std::ios::binary);
    track.gather(until_us);
    const int64_t first_pts = track.queue().front_pts();
    for (int64_t pts = first_pts; !track.queue().empty(); track.gather(until_us), pts += 1920) {
        EXPECT_EQ(track.queue().front_pts(), pts);
        const auto frame = track.queue().front();
        file.write(reinterpret_cast<const char*>(frame.data()),
                   static_cast<std::streamsize>(frame.size()));
        track.queue().pop();
    }
    file.close();
    FILE* const pcm = popen(("ffmpeg -v error -i " + name + " -f s16le -ac 1 -").c_str(), "r");
    int greatest = 0;
    double place = 0;
    int16_t sample = 0;
    for (int i = 0; fread(&sample, 2, 1, pcm) == 1; ++i)
        if (std::abs(sample) > greatest) {
            greatest = std::abs(sample);
            place = i;
        }
    EXPECT_EQ(pclose(pcm), 0);
    std::remove(name.c_str());
    EXPECT_GT(greatest, 5000);
    return static_cast<double>(first_pts) * 100 / 9 + place / 0.048;
}

// Catches sound off its time: by the encoder's delay, an early start, a loss, or a clock set back.
TEST(SoundTrack, PresentsWhatWasHeardWhenItWasHeard)
{
    const struct {
        const char* name;
        /** When each quarter of a second of PCM was heard; the burst is in the last. */
        std::vector<int64_t> pieces_us;
    } cases[] = {
        {"from the start", {10000000, 10250000}},
        {"before the first picture", {9700000, 9950000, 10200000}},
        {"later than the first picture", {10071234, 10321234}},
        {"with a loss", {10000000, 10250000, 11100000}},
        {"with an overlap", {10000000, 10250000, 10400000}},
        {"with a long loss", {10000000, 16000000}},
    };
    // of the first picture
    constexpr int64_t start_us = 10000000;
    for (const auto& [name, pieces_us] : cases) {
        auto track = SoundTrack::open();
        ASSERT_TRUE(track);
        auto reader = std::make_unique<ScriptedReader>();
        for (const int64_t time : pieces_us)
            reader->pieces.push_back(
                {time, burst_at(time == pieces_us.back() ? 9600 : -12000, 12000)});
        track->listen(std::move(reader));
        track->begin(start_us, 0);
        const int64_t burst_us = pieces_us.back() + 200000;
        EXPECT_NEAR(presented_burst(*track, burst_us + 1000000), double(burst_us - start_us), 1000)
            << name;
    }
}

} // namespace
