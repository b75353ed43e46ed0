// The multiplexer through its contract. A packet checker of its own judges what comes out.
#include "encoder/rate_ceiling.h"
#include "multiplexer_fixture.h"
#include "statistics/counters.h"

#include <chrono>
#include <thread>

namespace zu3host {
namespace {

using transport_stream::check;
using transport_stream::CheckOptions;
using transport_stream::Report;

constexpr uint32_t mebibit = 1048576;

struct StreamCase {
    const char* name;
    uint32_t packet_size;
    uint32_t rate;
    bool sound;
    std::vector<uint64_t> intervals_us; /**< between pictures, in turn */
    size_t greatest_picture;            /**< bytes, of pictures that are no IDR pictures */
    size_t greatest_idr;
};

void PrintTo(const StreamCase& stream, std::ostream* out)
{
    *out << stream.name;
}

class Streams : public MultiplexerModule, public ::testing::WithParamInterface<StreamCase> {};

// Catches tables, time references or sound that come too rarely or too late at some frame rate, pictures that
// are not there before their time, a rate that is not constant, counters that skip, lost or swapped bytes,
// and times that are not the capture's.
TEST_P(Streams, AreGoodAndCarryEverythingThatWasPushed)
{
    const StreamCase& wanted = GetParam();
    const Region region(2 << 20);
    Recording recording(open_params(region, wanted.packet_size, wanted.rate), true, wanted.sound);
    ASSERT_EQ(recording.start(), ZU_OK);
    UnitMaker units;
    uint64_t now = 5000000;
    uint64_t last = now;
    for (size_t i = 0; i < 200; ++i) {
        const bool idr = i % 30 == 0;
        const Bytes unit =
            units.make(idr, units.random_size(20, idr ? wanted.greatest_idr : wanted.greatest_picture));
        while (recording.push_captured(unit, now) == ZU_BUSY)
            ASSERT_NE(recording.copy(), 0u);
        recording.copy();
        last = now;
        now += wanted.intervals_us[i % wanted.intervals_us.size()];
    }
    ASSERT_EQ(ZU_TSMUX_DetachMediaSource(recording.handle, recording.pictures_id), ZU_OK);
    recording.drain();

    const Report report = check(recording.output, {wanted.packet_size, wanted.rate, false, true});
    EXPECT_EQ(text_of(report.findings), "");
    EXPECT_LE(report.greatest_time_interval, 0.040);
    EXPECT_LT(report.first_time, 0.2);
    if (wanted.rate != 0) {
        EXPECT_NEAR(report.rate, wanted.rate, wanted.rate * 1e-6);
    }
    EXPECT_TRUE(report.bytes.at(picture_pid) == units.sent);
    ASSERT_EQ(report.streams.size(), wanted.sound ? 2u : 1u);
    EXPECT_EQ(report.streams[0].access_units, 200u);
    EXPECT_EQ(*report.streams[0].last_pts - *report.streams[0].first_pts,
              static_cast<int64_t>(((last - 5000000) * 9 + 50) / 100));
    if (wanted.sound) {
        EXPECT_NEAR(static_cast<double>(*report.streams[1].first_pts),
                    static_cast<double>(*report.streams[0].first_pts) - 3000, 1);
        EXPECT_NEAR(static_cast<double>(*report.streams[1].last_pts),
                    static_cast<double>(*report.streams[0].last_pts), 2 * 1920 + 3000);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rates, Streams,
    ::testing::Values(
        StreamCase{"variable 30", 188, 0, false, {33333, 33333, 33334}, 12000, 150000},
        StreamCase{"variable 30 timed", 192, 0, true, {33333, 33333, 33334}, 12000, 150000},
        StreamCase{"variable 10", 188, 0, true, {100000}, 3000, 50000},
        StreamCase{"variable 1", 192, 0, true, {500000}, 300, 3000},
        StreamCase{"variable uneven", 188, 0, true, {1, 7000, 250000, 16000, 90000}, 9000, 90000},
        StreamCase{"1 Mbit", 188, mebibit, false, {33333, 33333, 33334}, 4500, 45000},
        StreamCase{"2 Mbit timed", 192, 2 * mebibit, true, {33333, 33333, 33334}, 8000, 80000},
        StreamCase{"1 Mbit 10", 188, mebibit, true, {100000}, 10000, 40000},
        StreamCase{"4 Mbit uneven", 188, 4 * mebibit, true, {1000, 7000, 500000, 33000}, 20000, 90000}),
    [](const auto& tested) { return "Case" + std::to_string(tested.index); });

// Catches a push that takes half a picture, loses what was pushed while the ring was full, cries once a
// retry, or holds a lock while the callback runs, which calls back into the multiplexer.
TEST_F(MultiplexerModule, FullRingAnswersBusyAndLosesNothing)
{
    for (const u32 mask : {3u, 1u}) {
        const Region region(200 * 188 + 100);
        Recording recording(open_params(region));
        int events = 0;
        u64 id = 0;
        const auto count = [](s32 handle, u32 event, void*, void* events_seen) {
            *static_cast<int*>(events_seen) += event == E_ZU_TSMUX_EVENT_OUTPUT_BUFFER_FULL;
            u8 less_than_a_packet[187];
            u32 copied = 0;
            return ZU_TSMUX_CopyOutputStream(static_cast<u32>(handle), less_than_a_packet, 187, &copied);
        };
        const ZU_TSMUX_CallbackParams_t callback{0, count, mask, &events, 0};
        ASSERT_EQ(ZU_TSMUX_RegisterCallback(recording.handle, &callback, &id), ZU_OK);
        ASSERT_EQ(recording.start(), ZU_OK);
        const uint64_t busy_before = counters().multiplexer_busy;
        UnitMaker units;
        int episodes = 0;
        unsigned busy = 0;
        for (uint64_t i = 0; i < 100; ++i) {
            const Bytes unit = units.make(i % 30 == 0, units.random_size(20, 12000));
            const unsigned busy_until_now = busy;
            for (; recording.push_captured(unit, 1000000 + i * 40000) == ZU_BUSY; ++busy)
                ASSERT_NE(recording.copy(40 * 188), 0u); // never empty, so that it wraps around
            episodes += busy != busy_until_now;
        }
        recording.drain();
        EXPECT_GT(episodes, 5);
        EXPECT_EQ(events, mask == 3 ? episodes : 0);
        EXPECT_EQ(counters().multiplexer_busy - busy_before, busy);
        const Report report = check(recording.output, {188, 0, false, true});
        EXPECT_EQ(text_of(report.findings), "");
        EXPECT_TRUE(report.bytes.at(picture_pid) == units.sent);
        const ZU_TSMUX_CallbackParams_t removal{id, nullptr, 0, nullptr, 0},
            other{id + 1, nullptr, 0, nullptr, 0};
        EXPECT_NE(ZU_TSMUX_UnRegisterCallback(recording.handle, &other), ZU_OK);
        EXPECT_EQ(ZU_TSMUX_UnRegisterCallback(recording.handle, &removal), ZU_OK);
        EXPECT_EQ(ZU_TSMUX_UnRegisterCallback(recording.handle, &removal), ZU_OK); // each stop removes it
    }
}

// Catches a pause that breaks the constant rate, and a fill that never ends because the ring is smaller than
// it.
TEST_F(MultiplexerModule, LongPauseIsFilledPieceByPiece)
{
    const Region region(1 << 18);
    Recording recording(open_params(region, 188, 4 * mebibit), true, true);
    ASSERT_EQ(recording.start(), ZU_OK);
    UnitMaker units;
    int busy = 0;
    for (const uint64_t at : {1000000u, 1033333u, 21000000u, 21033333u}) {
        const Bytes unit = units.make(true, 3000);
        for (; recording.push_captured(unit, at) == ZU_BUSY; ++busy)
            recording.drain();
    }
    recording.drain();
    EXPECT_GT(busy, 20);
    const Report report = check(recording.output, {188, 4 * mebibit, false, true});
    for (const auto& finding : report.findings)
        EXPECT_EQ(finding.kind, "pts_interval") << finding.what; // nothing was captured
    EXPECT_TRUE(report.bytes.at(picture_pid) == units.sent);
}

// Catches an encoder that goes on filling a constant rate beyond its limit, or is held down by one that is
// over.
TEST_F(MultiplexerModule, ConstantRatesLimitTheEncodersWhileTheyAreOpen)
{
    const Region region(1 << 18);
    {
        const Recording wide(open_params(region, 188, 2 * mebibit));
        const uint64_t silent = rate_ceiling();
        EXPECT_GT(silent, 3 * mebibit / 2);
        EXPECT_LT(silent, 2 * mebibit);
        {
            const Recording narrow(open_params(region, 188, mebibit), true, true);
            const Recording as_wide(open_params(region, 188, 2 * mebibit));
            EXPECT_GT(rate_ceiling(), mebibit / 2);
            EXPECT_LT(rate_ceiling(), mebibit - 141000);
        }
        EXPECT_EQ(rate_ceiling(), silent);
    }
    EXPECT_EQ(rate_ceiling(), 0u);
}

std::vector<int64_t> presentation_times(const Bytes& stream)
{
    std::vector<int64_t> times;
    for (size_t at = 0; at + 188 <= stream.size(); at += 188) {
        const uint8_t* const packet = stream.data() + at;
        if (!(packet[1] & 0x40) || ((packet[1] & 0x1f) << 8 | packet[2]) != picture_pid)
            continue;
        const uint8_t* const pts = packet + 4 + (packet[3] & 0x20 ? 1 + packet[4] : 0) + 9;
        times.push_back(int64_t{pts[0] & 0xe} << 29 | pts[1] << 22 | (pts[2] & 0xfe) << 14 | pts[3] << 7 |
                        pts[4] >> 1);
    }
    return times;
}

// Catches key frames (which come without a time) at a wrong place, times that run backwards, and a wrapped
// negative time that sends the stream years ahead.
TEST_F(MultiplexerModule, StatedTimesAreFollowedWhereTheyAreCredible)
{
    const struct {
        std::vector<uint64_t> pushed_us;
        std::vector<int64_t> expected_ticks; // after the first
    } cases[] = {
        {{no_pts, 33333, 66666, no_pts, 133333}, {0, 3000, 6000, 9000, 12000}},
        {{no_pts, no_pts, no_pts}, {0, 3000, 6000}},
        {{0, 40000, no_pts, 120000}, {0, 3600, 7200, 10800}},
        {{0, 40000, 20000, 80000}, {0, 3600, 3601, 7200}},
        {{0, 40000, uint64_t(-5000000), uint64_t(-4960000)}, {0, 3600, 7200, 10800}},
        {{0, 40000, 1ull << 50, (1ull << 50) + 40000}, {0, 3600, 7200, 10800}},
        {{0, 40000, 1500000}, {0, 3600, 135000}},
        {{0, 40000, 5000000, 5040000}, {0, 3600, 7200, 10800}},
    };
    const Region region(1 << 19);
    for (const auto& times : cases) {
        Recording recording(open_params(region));
        ASSERT_EQ(recording.start(), ZU_OK);
        UnitMaker units;
        for (const uint64_t pts : times.pushed_us)
            ASSERT_EQ(recording.push(units.make(true, 100), pts), ZU_OK);
        recording.drain();
        std::vector<int64_t> got = presentation_times(recording.output);
        for (size_t i = got.size(); i-- > 0;)
            got[i] -= got[0];
        EXPECT_EQ(got, times.expected_ticks) << "case " << &times - cases;
    }
}

// Catches parameters from outside that would make a broken stream or write beyond the buffer.
TEST_F(MultiplexerModule, RefusesWhatMakesNoStream)
{
    const Region region(1 << 18);
    using Params = ZU_TSMUX_OpenParams_t;
    void (*const spoil[])(Params&) = {
        [](Params& p) { p.u32TsPacketSize = 204; },    [](Params& p) { p.u32OutBufSize = 5000; },
        [](Params& p) { p.u32OutBufSize = 1u << 31; }, [](Params& p) { p.u32OutBufVa = 4096; },
        [](Params& p) { p.u16Pid0 = 0x1fff; },         [](Params& p) { p.u16Pid0 = p.u16Pid3; },
        [](Params& p) { p.bCbrEnable = 1; },           [](Params& p) { p.u32OutBufVa += 4096; },
    };
    for (const auto& change : spoil) {
        Params params = open_params(region);
        change(params);
        u32 handle = 0;
        EXPECT_NE(ZU_TSMUX_Open(&params, &handle), ZU_OK) << "case " << &change - spoil;
        EXPECT_EQ(handle, 0u);
    }
    Recording recording(open_params(region));
    u64 id = 0;
    EXPECT_NE(recording.attach(E_ZU_TSMUX_STREAM_VIDEO_OTHER, 0x103, 0xe0, &id), ZU_OK);
    EXPECT_NE(recording.attach(E_ZU_TSMUX_STREAM_AUDIO_AAC, picture_pid, 0xc0, &id), ZU_OK);
    EXPECT_NE(recording.attach(E_ZU_TSMUX_STREAM_AUDIO_AAC, 0x1000, 0xc0, &id), ZU_OK);
    EXPECT_NE(recording.attach(E_ZU_TSMUX_STREAM_AUDIO_AAC, sound_pid, 0xe0, &id), ZU_OK);
    EXPECT_NE(ZU_TSMUX_SetAttr(recording.handle, 0x201, &id), ZU_OK);
    EXPECT_EQ(id, 0u);
}

// Catches a push that is taken in a state in which nobody reads it, and a stream that is gone after the stop:
// the writer's last copy comes after it.
TEST_F(MultiplexerModule, StatesDecideWhatIsTaken)
{
    const Region region(1 << 18);
    Recording recording(open_params(region));
    UnitMaker units;
    const Bytes unit = units.make(true, 5000);
    EXPECT_EQ(recording.copy(), 0u);
    EXPECT_EQ(recording.push(unit, 0), ZU_FAILURE);
    ASSERT_EQ(recording.start(), ZU_OK);
    EXPECT_NE(recording.push(units.make(true, 300000), 0), ZU_OK);
    EXPECT_NE(recording.push({}, 0), ZU_OK);
    ASSERT_EQ(recording.push(unit, 0), ZU_OK);
    EXPECT_EQ(recording.copy(187), 0u);
    EXPECT_EQ(recording.copy(2 * 188 + 187), 2 * 188u);
    ASSERT_EQ(ZU_TSMUX_Stop(recording.handle), ZU_OK);
    EXPECT_EQ(recording.push(unit, 33333), ZU_FAILURE);
    EXPECT_GT(recording.copy(), 5000u);
    ASSERT_EQ(recording.start(), ZU_OK);
    ASSERT_EQ(ZU_TSMUX_DetachMediaSource(recording.handle, recording.pictures_id), ZU_OK);
    EXPECT_NE(recording.push(unit, 66666), ZU_OK);
    EXPECT_NE(ZU_TSMUX_DetachMediaSource(recording.handle, recording.pictures_id), ZU_OK);
    ASSERT_EQ(ZU_TSMUX_Close(recording.handle), ZU_OK);
    EXPECT_NE(ZU_TSMUX_Close(recording.handle), ZU_OK);
    EXPECT_NE(ZU_TSMUX_Stop(recording.handle), ZU_OK);
    EXPECT_TRUE(check(recording.output, {}).good());
}

// Catches a recording of sound alone that stays empty, since no picture moves its clock.
TEST_F(MultiplexerModule, SoundAloneMakesAStream)
{
    const Region region(1 << 18);
    Recording recording(open_params(region), false, true);
    ASSERT_EQ(recording.start(), ZU_OK);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (recording.output.size() < 60 * 188 && std::chrono::steady_clock::now() < deadline) {
        if (recording.copy() == 0)
            std::this_thread::yield();
    }
    const Report report = check(recording.output, {});
    EXPECT_EQ(text_of(report.findings), "");
    ASSERT_EQ(report.streams.size(), 1u);
    EXPECT_GT(report.streams[0].access_units, 10u);
}

} // namespace
} // namespace zu3host
