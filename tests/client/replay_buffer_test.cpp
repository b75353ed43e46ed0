// The frames and sound that a replay keeps in memory.
#include "movie/replay_buffer.h"
#include "movie/snapshot_handover.h"
#include "running/attended_process.h"

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <random>
#include <thread>
#include <unistd.h>
#include <utility>

namespace client::movie {
namespace {

using namespace std::chrono_literals;

constexpr uint64_t second = 1'000'000;
constexpr uint64_t mib = 1 << 20;

/** Content that depends on its time, so that bytes of another piece show. */
template <typename Value> void fill(std::vector<Value>& content, size_t count, uint64_t time_us)
{
    content.resize(count);
    for (size_t n = 0; n < count; ++n)
        content[n] = static_cast<Value>((n * 7 + time_us / 1000) & 0xff);
}

struct ReadPiece {
    KeptPiece::Kind kind;
    uint64_t time_us;
    bool whole;
};

/** Reads the rest of a snapshot, and compares each content with that of its time. */
std::vector<ReadPiece> read_all(Snapshot& snapshot)
{
    std::vector<ReadPiece> all;
    std::vector<uint8_t> frame;
    std::vector<int16_t> sound;
    for (KeptPiece piece; snapshot.next(piece);) {
        const bool is_sound = piece.kind == KeptPiece::Kind::sound;
        fill(frame, is_sound ? 0 : piece.bytes.size(), piece.time_us);
        fill(sound, is_sound ? piece.samples().size() : 0, piece.time_us);
        all.push_back({piece.kind, piece.time_us,
                       is_sound ? std::ranges::equal(sound, piece.samples())
                                : std::ranges::equal(frame, piece.bytes)});
    }
    return all;
}

/** Puts frames, 10 a second, with a key frame each second, and sound. */
class Filled {
public:
    Filled(std::chrono::microseconds last, uint64_t memory_bytes) : buffer(last, memory_bytes) {}

    void pass_tenth(size_t frame_bytes)
    {
        fill(frame_, frame_bytes, now_us);
        fill(sound_, 9600, now_us);
        buffer.put_frame({.bytes = frame_, .pts_us = now_us, .key = now_us % second == 0});
        buffer.put_sound(now_us, sound_);
        now_us += second / 10;
    }
    void pass(int seconds, size_t frame_bytes)
    {
        for (int n = 0; n < seconds * 10; ++n)
            pass_tenth(frame_bytes);
    }

    ReplayBuffer buffer;
    uint64_t now_us = 100 * second;

private:
    std::vector<uint8_t> frame_;
    std::vector<int16_t> sound_;
};

/** Expects frames in succession from a key frame on, and sound for all of them. */
void expect_playable(const std::vector<ReadPiece>& pieces, uint64_t end_us)
{
    const auto is_frame = [](const ReadPiece& piece) {
        return piece.kind != KeptPiece::Kind::sound;
    };
    const auto first = std::ranges::find_if(pieces, is_frame);
    ASSERT_NE(first, pieces.end());
    EXPECT_EQ(first->kind, KeptPiece::Kind::key_frame);
    EXPECT_TRUE(std::ranges::all_of(pieces, &ReadPiece::whole));
    uint64_t frame_us = first->time_us;
    for (const ReadPiece& piece : pieces) {
        if (is_frame(piece)) {
            EXPECT_EQ(piece.time_us, std::exchange(frame_us, frame_us + second / 10));
        }
    }
    EXPECT_EQ(frame_us, end_us);
    const auto sound = std::ranges::find(pieces, KeptPiece::Kind::sound, &ReadPiece::kind);
    ASSERT_NE(sound, pieces.end());
    EXPECT_LE(sound->time_us, first->time_us + second / 10);
    EXPECT_GE(sound->time_us + second / 2, first->time_us);
}

// Catches a file that is too short or begins more than a second early, one that begins without a
// key frame, sound of another time, and content of another piece where the memory is used again.
TEST(ReplayBuffer, KeepsTheLastSecondsFromAKeyFrameOn)
{
    for (const size_t frame_bytes : {1ul, 65'520ul, 150'000ul}) {
        SCOPED_TRACE(frame_bytes);
        Filled filled(3s, 16 * mib);
        for (int n = 0; n < 25; ++n) {
            filled.pass(1, frame_bytes + static_cast<size_t>(n));
            if (n % 5 != 4)
                continue;
            Snapshot kept = filled.buffer.snapshot();
            const std::vector<ReadPiece> pieces = read_all(kept);
            expect_playable(pieces, filled.now_us);
            EXPECT_GE(filled.buffer.length(), 3s);
            EXPECT_LE(filled.buffer.length(), 4s);
            const auto length = static_cast<uint64_t>(filled.buffer.length().count());
            EXPECT_LE(pieces.front().time_us + length, filled.now_us - second / 5)
                << "sound from before the first frame, whose exact time is not known yet";
        }
    }
}

// Catches a frame that overwrites kept ones, a group without its first frames, and a buffer that
// stays empty, when frames have no room: too much data, a frame as large as the memory, or more.
TEST(ReplayBuffer, GivesUpWholeGroupsWithoutRoom)
{
    struct Case {
        const char* name;
        size_t usual;
        size_t large;
        /** of the tenths of a second: the one with the large frame */
        int at;
        std::chrono::microseconds left;
    };
    // Half of 4 MiB, less two blocks, has room for 1.9 MB.
    constexpr Case cases[] = {{"more than fits", 30'000, 30'000, 0, 3000ms},
                              {"a large key frame", 1000, 1'000'000, 0, 4000ms},
                              {"a large key frame, most of the memory", 1000, 1'850'000, 0, 0ms},
                              {"a large frame in a group", 1000, 1'500'000, 5, 1500ms},
                              {"in a group that itself has no room then", 1000, 1'890'000, 5, -1ms},
                              {"a frame larger than the memory", 1000, 9'000'000, 5, -1ms}};
    for (const Case& one : cases) {
        SCOPED_TRACE(one.name);
        Filled filled(5s, 4 * mib);
        filled.pass(20, one.usual);
        for (int n = 0; n <= one.at; ++n)
            filled.pass_tenth(n == one.at ? one.large : one.usual);
        Snapshot kept = filled.buffer.snapshot();
        EXPECT_EQ(kept.empty(), one.left < 0ms);
        if (one.left >= 0ms) {
            EXPECT_EQ(filled.buffer.length(), one.left);
            expect_playable(read_all(kept), filled.now_us);
        }
        for (int n = one.at + 1; n < 20; ++n)
            filled.pass_tenth(one.usual);
        Snapshot later = filled.buffer.snapshot();
        expect_playable(read_all(later), filled.now_us);
    }
}

int64_t resident_bytes()
{
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * sysconf(_SC_PAGESIZE);
}

// Catches memory that the buffer does not count, such as gaps between frames of every size, and
// memory that grows in ten hours. Every other half hour, the screen stands still.
TEST(ReplayBuffer, UsesNoMemoryButWhatItCounts)
{
    constexpr uint64_t memory = 16 * mib;
    ReplayBuffer buffer(60s, memory);
    const std::vector<uint8_t> frame(100'000, 1);
    const std::vector<int16_t> sound(512, 1);
    const int64_t before = resident_bytes();
    std::mt19937 random;
    std::lognormal_distribution<double> size(6.5, 1);
    constexpr uint64_t seconds = SCREENRECORD_SANITIZED ? 3600 : 36'000;
    int64_t most_beyond = 0;
    for (uint64_t n = 0; n < seconds * 16; ++n) {
        const uint64_t now_us = n * second / 16;
        const bool key = now_us % second == 0;
        const bool still = n / 16 / 1800 % 2 == 1;
        const auto bytes = static_cast<size_t>(size(random) * (key ? 10 : still ? 0 : 1)) + 1;
        buffer.put_frame({.bytes = std::span(frame).first(std::min(frame.size(), bytes)),
                          .pts_us = now_us,
                          .key = key});
        buffer.put_sound(now_us, sound);
        if (n % 960 == 0)
            most_beyond = std::max(most_beyond, resident_bytes() - before -
                                                    static_cast<int64_t>(buffer.bytes_in_memory()));
    }
    EXPECT_GE(buffer.length(), 60s);
    EXPECT_LE(buffer.bytes_in_memory(), memory / 2 + memory / 32);
    if (!SCREENRECORD_SANITIZED) { // its shadow memory stays resident
        EXPECT_LE(most_beyond, int64_t{mib});
    }
}

// Catches a save that reads overwritten bytes, memory that stays after it, and one that needs more
// than the buffer has, or costs a frame, however long it reads.
TEST(ReplayBuffer, KeepsWhatASaveReads)
{
    constexpr uint64_t memory = 4 * mib;
    Filled filled(5s, memory);
    filled.pass(20, 12'000);
    const uint64_t flat = filled.buffer.bytes_in_memory();
    const uint64_t begin_us = filled.now_us;
    {
        Snapshot read = filled.buffer.snapshot();
        EXPECT_EQ(filled.buffer.bytes_in_memory(), flat);
        filled.pass(2, 12'000);
        EXPECT_GT(filled.buffer.bytes_in_memory(), flat + 200'000);
        filled.pass(60, 12'000);
        EXPECT_LE(filled.buffer.bytes_in_memory(), memory);
        expect_playable(read_all(read), begin_us);
        filled.pass(1, 12'000);
        EXPECT_LE(filled.buffer.bytes_in_memory(), flat + 2 * BlockMemory::block_bytes)
            << "what was read is given back before the end of the save";
        Snapshot other = filled.buffer.snapshot();
        expect_playable(read_all(other), filled.now_us);
    }
    const Snapshot never_read = filled.buffer.snapshot();
    EXPECT_GE(filled.buffer.length(), 5s);
    filled.pass(60, 12'000);
    EXPECT_GE(filled.buffer.length(), 5s);
}

// Catches a data race between the recorder and a save.
TEST(ReplayBuffer, IsFilledWhileASaveReads)
{
    Filled filled(5s, 4 * mib);
    filled.pass(20, 12'000);
    Snapshot kept = filled.buffer.snapshot();
    const uint64_t end_us = filled.now_us;
    std::thread save([&kept, end_us] { expect_playable(read_all(kept), end_us); });
    filled.pass(20, 12'000);
    save.join();
    Snapshot later = filled.buffer.snapshot();
    expect_playable(read_all(later), filled.now_us);
}

// Catches a buffer whose memory goes away under a save, which can last longer than the recorder.
TEST(ReplayBuffer, LeavesASaveItsMemory)
{
    auto filled = std::make_unique<Filled>(5s, 4 * mib);
    filled->pass(20, 1000);
    Snapshot kept = filled->buffer.snapshot();
    const uint64_t end_us = filled->now_us;
    filled.reset();
    expect_playable(read_all(kept), end_us);
}

/** Reads what is handed over; its result is the number of pieces, or the fault. */
std::string read_elsewhere(const SnapshotHandover& handover)
{
    const int64_t before = resident_bytes();
    std::vector<ReadPiece> pieces;
    {
        Snapshot snapshot = handover.get();
        pieces = read_all(snapshot);
        if (snapshot.part_read() != 1)
            return "not all is read";
    }
    if (!SCREENRECORD_SANITIZED && resident_bytes() - before > int64_t{mib} / 2)
        return "what is read still counts as memory of this process";
    return std::ranges::all_of(pieces, &ReadPiece::whole) ? std::to_string(pieces.size())
                                                          : "not all is whole";
}

// Catches a process that reads its own old copy of the data, or data that is overwritten meanwhile,
// and memory that stays in use in either process although it is read.
TEST(ReplayBuffer, IsFilledWhileAnotherProcessReads)
{
    Filled filled(5s, 4 * mib);
    SnapshotHandover handover(filled.buffer);
    AttendedProcess reader("reader", {}, [&handover](const AttendedProcess::GoOn&) {
        return read_elsewhere(handover);
    });
    for (int n = 0; n < 3; ++n) {
        filled.pass(20, 12'000);
        const uint64_t flat = filled.buffer.bytes_in_memory();
        Snapshot kept = filled.buffer.snapshot();
        Snapshot same = filled.buffer.snapshot();
        handover.put(kept);
        filled.pass(20, 12'000);
        reader.begin();
        pollfd done{reader.fd(), POLLIN, 0};
        ASSERT_EQ(poll(&done, 1, 60'000), 1);
        EXPECT_EQ(reader.finish(), std::to_string(read_all(same).size()));
        kept.give_back(0.5);
        filled.pass(1, 12'000);
        EXPECT_LT(filled.buffer.bytes_in_memory(), flat * 7 / 4);
        kept.give_back(1);
        filled.pass(1, 12'000);
        EXPECT_LE(filled.buffer.bytes_in_memory(), flat + 2 * BlockMemory::block_bytes);
    }
}

// Catches frames before the first key frame, which no player shows, and sound that piles up.
TEST(ReplayBuffer, BeginsWithAKeyFrame)
{
    ReplayBuffer buffer(5s, 64 * mib);
    const std::vector<uint8_t> byte(1);
    const std::vector<int16_t> samples(960);
    for (uint64_t n = 0; n < 1000; ++n)
        buffer.put_sound(n * 10'000, samples);
    EXPECT_LE(buffer.bytes_in_memory(), mib);
    buffer.put_frame({.bytes = byte, .pts_us = 5, .key = false});
    EXPECT_TRUE(buffer.snapshot().empty());
    EXPECT_EQ(buffer.length(), 0s);
}

} // namespace
} // namespace client::movie
