// Sound in recordings: where it lies against the pictures.
#include "multiplexer/sound_track.h"
#include "multiplexer_fixture.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace zu3host {
namespace {

constexpr int64_t second_us = 1000000;

/** Pieces of PCM with the times at which they were heard. */
class ScriptedReader : public PcmReader {
public:
    void add(int64_t time_us, std::vector<int16_t> samples)
    {
        pieces_.push_back({time_us, std::move(samples), 0});
    }
    size_t level() override
    {
        while (!pieces_.empty() && left(pieces_.front()) == 0)
            pieces_.erase(pieces_.begin());
        return pieces_.empty() ? 0 : left(pieces_.front());
    }
    size_t read(void* dst, size_t size) override
    {
        size = std::min(size, level());
        if (size == 0)
            return 0;
        Piece& piece = pieces_.front();
        std::memcpy(dst, reinterpret_cast<const uint8_t*>(piece.samples.data()) + piece.read, size);
        piece.read += size;
        return size;
    }
    int64_t time_of_next_us() override
    {
        const Piece& piece = pieces_.front();
        return piece.time_us + static_cast<int64_t>(piece.read / pcm_frame_bytes) * 1000 / 48;
    }

private:
    struct Piece {
        int64_t time_us;
        std::vector<int16_t> samples;
        size_t read;
    };
    static size_t left(const Piece& piece) { return piece.samples.size() * 2 - piece.read; }
    std::vector<Piece> pieces_;
};

/** Silence with a short burst around one sample. */
std::vector<int16_t> burst_at(size_t sample, size_t samples)
{
    std::vector<int16_t> pcm(samples * pcm_channels);
    for (size_t i = 0; i < samples; ++i) {
        const double from_burst = static_cast<double>(i) - static_cast<double>(sample);
        const double value = 20000 * std::exp(-from_burst * from_burst / 3600) * std::cos(from_burst * 0.15);
        pcm[i * 2] = pcm[i * 2 + 1] = static_cast<int16_t>(value);
    }
    return pcm;
}

/** Decodes the track and answers at which moment, microseconds, the burst is presented. */
double presented_burst(SoundTrack& track, const std::string& directory, int64_t until_us)
{
    std::ofstream file(directory + "/track.aac", std::ios::binary);
    track.gather(until_us);
    const double first_us = static_cast<double>(track.queue().front_pts()) * 100 / 9;
    int64_t expected_pts = track.queue().front_pts();
    for (; !track.queue().empty(); track.gather(until_us)) {
        EXPECT_EQ(track.queue().front_pts(), expected_pts);
        expected_pts += 1920;
        const auto frame = track.queue().front();
        file.write(reinterpret_cast<const char*>(frame.data()), static_cast<std::streamsize>(frame.size()));
        track.queue().pop();
    }
    file.close();
    const std::string decode =
        "ffmpeg -v error -y -i " + directory + "/track.aac -f s16le -ac 1 " + directory + "/track.pcm";
    EXPECT_EQ(std::system(decode.c_str()), 0);
    std::ifstream pcm(directory + "/track.pcm", std::ios::binary);
    int16_t sample = 0;
    int greatest = 0;
    size_t place = 0;
    for (size_t i = 0; pcm.read(reinterpret_cast<char*>(&sample), 2); ++i) {
        if (std::abs(sample) > greatest) {
            greatest = std::abs(sample);
            place = i;
        }
    }
    EXPECT_GT(greatest, 5000);
    return first_us + static_cast<double>(place) / 0.048;
}

class Directory {
public:
    Directory()
    {
        char name[] = "/tmp/multiplexer_test.XXXXXX";
        path = mkdtemp(name);
    }
    ~Directory() { std::filesystem::remove_all(path); }
    std::string path;
};

struct HeardCase {
    const char* name;
    int64_t start_us; /**< of the first picture */
    std::vector<int64_t>
        pieces_us; /**< when each quarter of a second of PCM was heard; the burst is in the last */
};

// Catches sound that is early or late against the pictures: by the encoder's delay, by what was heard before
// the first picture, by what was lost in between, or by a clock that was set back.
TEST(SoundTrack, PresentsWhatWasHeardWhenItWasHeard)
{
    const HeardCase cases[] = {
        {"from the start", 10 * second_us, {10000000, 10250000}},
        {"before the first picture", 10 * second_us, {9700000, 9950000, 10200000}},
        {"later than the first picture", 10 * second_us, {10071234, 10321234}},
        {"with a loss", 10 * second_us, {10000000, 10250000, 11100000}},
        {"with an overlap", 10 * second_us, {10000000, 10250000, 10400000}},
        {"with a long loss", 10 * second_us, {10000000, 16000000}},
    };
    const Directory directory;
    for (const HeardCase& heard : cases) {
        auto track = SoundTrack::open();
        ASSERT_TRUE(track);
        auto reader = std::make_unique<ScriptedReader>();
        for (const int64_t time : heard.pieces_us) {
            const bool last = time == heard.pieces_us.back();
            reader->add(time, last ? burst_at(9600, 12000) : std::vector<int16_t>(12000 * pcm_channels));
        }
        track->listen(std::move(reader));
        track->begin(heard.start_us, 0);
        const int64_t burst_us = heard.pieces_us.back() + 200000;
        const double presented = presented_burst(*track, directory.path, burst_us + second_us);
        EXPECT_NEAR(presented, static_cast<double>(burst_us - heard.start_us), 1000) << heard.name;
    }
}

} // namespace
} // namespace zu3host
