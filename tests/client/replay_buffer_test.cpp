// The frames and sound that a replay keeps in memory.
#include "movie/replay_buffer.h"

#include <gtest/gtest.h>

namespace client::movie {
namespace {

using namespace std::chrono_literals;

constexpr uint64_t second = 1'000'000;

/** Puts seconds of frames, 10 a second, with a key frame each second, and of sound. */
class Filled {
public:
    Filled(std::chrono::microseconds last, uint64_t most_bytes) : buffer(last, most_bytes) {}

    void pass(int seconds, size_t frame_bytes)
    {
        const std::vector<uint8_t> bytes(frame_bytes, 1);
        const std::vector<int16_t> samples(9600, 1);
        for (int n = 0; n < seconds * 10; ++n, now_us += second / 10) {
            buffer.put_frame({.bytes = bytes, .pts_us = now_us, .key = now_us % second == 0});
            buffer.put_sound(now_us, samples);
        }
    }

    ReplayBuffer buffer;
    uint64_t now_us = 100 * second;
};

// Catches a file that is too short or begins more than a second early, one that begins without a
// key frame, and sound of another time.
TEST(ReplayBuffer, KeepsTheLastSecondsFromAKeyFrameOn)
{
    Filled filled(3s, 1 << 30);
    for (int n = 0; n < 40; ++n) {
        filled.pass(1, 100);
        const Snapshot kept = filled.buffer.snapshot();
        EXPECT_TRUE(kept.frames.front()->key);
        EXPECT_EQ(kept.frames.back()->time_us, filled.now_us - second / 10);
        if (n >= 4) {
            EXPECT_GE(filled.buffer.length(), 3s);
            EXPECT_LE(filled.buffer.length(), 4s);
            EXPECT_LE(kept.sound.front()->time_us, kept.frames.front()->time_us);
            EXPECT_GE(kept.sound.front()->time_us + second / 2, kept.frames.front()->time_us);
        }
    }
}

// Catches memory that grows with time or with the rate, and a save that loses what it reads.
TEST(ReplayBuffer, StaysBelowItsBoundAndKeepsWhatASaveReads)
{
    constexpr uint64_t most = 2'000'000;
    Filled filled(5s, most);
    filled.pass(20, 1000);
    const uint64_t flat = filled.buffer.bytes_alive();
    filled.pass(20, 1000);
    EXPECT_EQ(filled.buffer.bytes_alive(), flat);
    filled.pass(20, 60'000);
    EXPECT_LE(filled.buffer.bytes_alive(), most + 1'000'000) << "and its last second";
    {
        const Snapshot read = filled.buffer.snapshot();
        const uint64_t first = read.frames.front()->time_us;
        filled.pass(20, 60'000);
        EXPECT_EQ(read.frames.front()->time_us, first);
        EXPECT_LE(filled.buffer.bytes_alive(), 2 * most + 1'000'000);
    }
    EXPECT_LE(filled.buffer.bytes_alive(), most + 1'000'000);
}

// Catches frames before the first key frame, which no player shows, and sound that piles up.
TEST(ReplayBuffer, BeginsWithAKeyFrame)
{
    ReplayBuffer buffer(5s, 1 << 30);
    const std::vector<uint8_t> byte(1);
    const std::vector<int16_t> samples(960);
    for (uint64_t n = 0; n < 1000; ++n)
        buffer.put_sound(n * 10'000, samples);
    EXPECT_LE(buffer.bytes_alive(), 101u * 960 * 2);
    buffer.put_frame({.bytes = byte, .pts_us = 5, .key = false});
    EXPECT_TRUE(buffer.snapshot().frames.empty());
    EXPECT_EQ(buffer.length(), 0s);
}

} // namespace
} // namespace client::movie
