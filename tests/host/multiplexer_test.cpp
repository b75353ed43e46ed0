// The multiplexer through its contract; the packet checker judges its output.
#include "multiplexer_fixture.h"
#include "picture/picture_in_flight.h"
#include "statistics/counters.h"

using namespace zu3host;

namespace {

using transport_stream::check;
using transport_stream::Report;

constexpr uint32_t mebibit = 1048576;

/** The checker's findings in what came out, and whether all pictures are in it. */
Report expect_all_of(const UnitMaker& units, Recording& recording, const Form& form = {})
{
    recording.drain();
    Report report = check(recording.output, {form.packet_size, form.rate, false, true});
    EXPECT_TRUE(report.bytes.at(picture_pid) == units.sent);
    return report;
}

/** Pictures that a test pushes: 200, of which every thirtieth is an IDR picture. */
const struct Pushed {
    const char* name;
    Form form;
    /** between pictures, in turn */
    std::vector<uint64_t> intervals_us;
    /** bytes */
    size_t greatest_picture, greatest_idr;
} all_pushed[] = {
    {"variable 30", {188, 0}, {33333, 33333, 33334}, 12000, 150000},
    {"variable 30 timed", {192, 0, true, true}, {33333, 33333, 33334}, 12000, 150000},
    {"variable 10", {188, 0, true, true}, {100000}, 3000, 50000},
    {"variable 2", {192, 0, true, true}, {500000}, 300, 3000},
    {"variable uneven", {188, 0, true, true}, {1, 7000, 250000, 16000, 90000}, 9000, 90000},
    {"1 Mbit", {188, mebibit}, {33333, 33333, 33334}, 4500, 45000},
    {"2 Mbit timed", {192, 2 * mebibit, true, true}, {33333, 33333, 33334}, 8000, 80000},
    {"1 Mbit 10", {188, mebibit, true, true}, {100000}, 10000, 40000},
    {"4 Mbit uneven", {188, 4 * mebibit, true, true}, {1000, 7000, 500000, 33000}, 20000, 90000},
};

/** The report on the stream; `length_us` gets the time from the first to the last picture. */
Report push(const Pushed& pushed, uint64_t& length_us)
{
    Form form = pushed.form;
    form.region = 2 << 20;
    Recording recording(form);
    EXPECT_EQ(recording.start(), ZU_OK);
    UnitMaker units;
    uint64_t now = 5000000;
    for (size_t i = 0; i < 200; ++i) {
        const bool idr = i % 30 == 0;
        length_us = now - 5000000;
        recording.push_captured(
            units.make_any(idr, idr ? pushed.greatest_idr : pushed.greatest_picture), now);
        recording.copy();
        now += pushed.intervals_us[i % pushed.intervals_us.size()];
    }
    EXPECT_EQ(recording.detach_pictures(), ZU_OK);
    return expect_all_of(units, recording, form);
}

// Catches late tables, time references or sound, an uneven rate, and lost or swapped bytes.
TEST(Multiplexer, MakesGoodStreamsOfEverythingThatWasPushed)
{
    for (const Pushed& pushed : all_pushed) {
        SCOPED_TRACE(pushed.name);
        uint64_t length_us = 0;
        const Report report = push(pushed, length_us);
        EXPECT_EQ(text_of(report.findings), "");
        EXPECT_LE(report.greatest_time_interval, 0.040);
        EXPECT_LT(report.first_time, 0.2);
        if (const uint32_t rate = pushed.form.rate) {
            EXPECT_NEAR(report.rate, rate, rate * 1e-6);
        }
    }
}

// Catches times that are not the capture's: of pictures, and of sound against them.
TEST(Multiplexer, StampsPicturesAndSoundByWhenTheyWereCaptured)
{
    for (const Pushed& pushed : all_pushed) {
        SCOPED_TRACE(pushed.name);
        uint64_t length_us = 0;
        const auto streams = push(pushed, length_us).streams;
        ASSERT_EQ(streams.size(), pushed.form.sound ? 2u : 1u);
        const auto& pictures = streams[0];
        EXPECT_EQ(pictures.access_units, 200u);
        EXPECT_EQ(*pictures.last_pts - *pictures.first_pts,
                  static_cast<int64_t>((length_us * 9 + 50) / 100));
        if (!pushed.form.sound)
            continue;
        // The encoder's first frame is its delay, and it keeps one back.
        EXPECT_NEAR(double(*streams[1].first_pts - *pictures.first_pts), -1920, 1);
        EXPECT_NEAR(double(*streams[1].last_pts - *pictures.last_pts), 0, 4 * 1920);
    }
}

/** Of a picture that is lost now, whether it counts as one that there was no room for. */
uint64_t lost_for_room()
{
    const uint64_t before = counters().pictures_left_out_for_room;
    std::atomic<uint64_t> reason{0};
    count_lost_picture(reason);
    return counters().pictures_left_out_for_room - before;
}

// Catches a lost picture that is blamed on a disk that did not hold it up, and one that is not.
TEST(Multiplexer, IsFullFromABusyPushToItsClose)
{
    {
        Recording recording({.region = 200 * 188 + 100});
        ASSERT_EQ(recording.start(), ZU_OK);
        UnitMaker units;
        EXPECT_EQ(lost_for_room(), 0u);
        u32 result = ZU_OK;
        for (uint64_t us = 1'000'000; result == ZU_OK; us += 40'000) {
            const PictureInFlight encoded{.stage = PictureInFlight::Stage::encoded, .time_us = us};
            const PictureInCallback in_callback(encoded);
            result = recording.push(units.make_any(false, 12000), no_pts);
        }
        EXPECT_EQ(result, ZU_BUSY);
        EXPECT_EQ(lost_for_room(), 1u);
    }
    EXPECT_EQ(lost_for_room(), 0u);
}

// Catches a push of half a picture, a loss while the ring is full, and a lock during the callback.
TEST(Multiplexer, FullRingAnswersBusyAndLosesNothing)
{
    for (const u32 mask : {3u, 1u}) {
        Recording recording({.region = 200 * 188 + 100});
        unsigned events = 0;
        u64 id = 0;
        const auto count = [](s32 handle, u32 event, void*, void* events_seen) {
            *static_cast<unsigned*>(events_seen) += event == E_ZU_TSMUX_EVENT_OUTPUT_BUFFER_FULL;
            u8 less_than_a_packet[187];
            u32 copied = 0;
            return ZU_TSMUX_CopyOutputStream(static_cast<u32>(handle), less_than_a_packet, 187,
                                             &copied);
        };
        const ZU_TSMUX_CallbackParams_t callback{0, count, mask, &events, 0};
        ASSERT_EQ(ZU_TSMUX_RegisterCallback(recording.handle, &callback, &id), ZU_OK);
        ASSERT_EQ(recording.start(), ZU_OK);
        const uint64_t busy_before = counters().multiplexer_busy;
        UnitMaker units;
        unsigned episodes = 0, all_busy = 0;
        for (uint64_t i = 0; i < 100; ++i) {
            const unsigned busy =
                recording.push_captured(units.make_any(i % 30 == 0, 12000), 1000000 + i * 40000,
                                        // never empty, so that it wraps around
                                        40 * 188);
            episodes += busy != 0;
            all_busy += busy;
        }
        EXPECT_EQ(text_of(expect_all_of(units, recording).findings), "");
        EXPECT_GT(episodes, 5u);
        EXPECT_EQ(events, mask == 3 ? episodes : 0);
        EXPECT_EQ(counters().multiplexer_busy - busy_before, all_busy);
        EXPECT_EQ(lost_for_room(), 0u) << "nothing is full";
        const ZU_TSMUX_CallbackParams_t removal{id, nullptr, 0, nullptr, 0},
            other{id + 1, nullptr, 0, nullptr, 0};
        EXPECT_NE(ZU_TSMUX_UnRegisterCallback(recording.handle, &other), ZU_OK);
        EXPECT_EQ(ZU_TSMUX_UnRegisterCallback(recording.handle, &removal), ZU_OK);
        // each stop removes it
        EXPECT_EQ(ZU_TSMUX_UnRegisterCallback(recording.handle, &removal), ZU_OK);
    }
}

// Catches a pause that breaks the constant rate, and a fill that never ends in a smaller ring.
TEST(Multiplexer, LongPauseIsFilledPieceByPiece)
{
    const Form form{.rate = 4 * mebibit, .sound = true};
    Recording recording(form);
    ASSERT_EQ(recording.start(), ZU_OK);
    UnitMaker units;
    unsigned busy = 0;
    for (const uint64_t at : {1000000u, 1033333u, 21000000u, 21033333u})
        busy += recording.push_captured(units.make(true, 3000), at);
    EXPECT_GT(busy, 20u);
    for (const auto& finding : expect_all_of(units, recording, form).findings)
        // nothing was captured
        EXPECT_EQ(finding.kind, "pts_interval") << finding.what;
}

// Catches an encoder that exceeds a constant rate, or that a closed multiplexer still limits.
TEST(Multiplexer, ConstantRatesLimitTheEncodersWhileTheyAreOpen)
{
    {
        const Recording wide({.rate = 2 * mebibit});
        const uint64_t silent = rate_ceiling();
        EXPECT_GT(silent, 3 * mebibit / 2);
        EXPECT_LT(silent, 2 * mebibit);
        {
            const Recording narrow({.rate = mebibit, .sound = true}),
                as_wide({.rate = 2 * mebibit});
            EXPECT_GT(rate_ceiling(), mebibit / 2);
            EXPECT_LT(rate_ceiling(), mebibit - 141000);
        }
        EXPECT_EQ(rate_ceiling(), silent);
    }
    EXPECT_EQ(rate_ceiling(), 0u);
}

// Catches misplaced key frames (which come without a time), and times that run back or years ahead.
TEST(Multiplexer, StatedTimesAreFollowedWhereTheyAreCredible)
{
    const struct {
        std::vector<uint64_t> pushed_us;
        // after the first
        std::vector<int64_t> expected_ticks;
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
    for (const auto& times : cases) {
        Recording recording;
        ASSERT_EQ(recording.start(), ZU_OK);
        UnitMaker units;
        std::vector<int64_t> got;
        for (const uint64_t pts : times.pushed_us) {
            ASSERT_EQ(recording.push(units.make(true, 100), pts), ZU_OK);
            recording.drain();
            const Report report = check(recording.output, {});
            got.push_back(*report.streams.at(0).last_pts - *report.streams.at(0).first_pts);
        }
        EXPECT_EQ(got, times.expected_ticks) << "case " << &times - cases;
    }
}

// Catches parameters from outside that would make a broken stream or write beyond the buffer.
TEST(Multiplexer, RefusesWhatMakesNoStream)
{
    Recording recording;
    using Params = ZU_TSMUX_OpenParams_t;
    void (*const spoil[])(Params&) = {
        [](Params& p) { p.u32TsPacketSize = 204; },    [](Params& p) { p.u32OutBufSize = 5000; },
        [](Params& p) { p.u32OutBufSize = 1u << 31; }, [](Params& p) { p.u32OutBufVa = 4096; },
        [](Params& p) { p.u16Pid0 = 0x1fff; },         [](Params& p) { p.u16Pid0 = p.u16Pid3; },
        [](Params& p) { p.bCbrEnable = 1; },           [](Params& p) { p.u32OutBufVa += 4096; },
    };
    for (const auto& change : spoil) {
        Params params = recording.params;
        change(params);
        u32 handle = 0;
        EXPECT_NE(ZU_TSMUX_Open(&params, &handle), ZU_OK) << "case " << &change - spoil;
        EXPECT_EQ(handle, 0u);
    }
    u64 id = 0;
    EXPECT_NE(recording.attach(E_ZU_TSMUX_STREAM_VIDEO_OTHER, 0x103, 0xe0, &id), ZU_OK);
    EXPECT_NE(recording.attach(E_ZU_TSMUX_STREAM_AUDIO_AAC, picture_pid, 0xc0, &id), ZU_OK);
    EXPECT_NE(recording.attach(E_ZU_TSMUX_STREAM_AUDIO_AAC, 0x1000, 0xc0, &id), ZU_OK);
    EXPECT_NE(recording.attach(E_ZU_TSMUX_STREAM_AUDIO_AAC, sound_pid, 0xe0, &id), ZU_OK);
    EXPECT_NE(ZU_TSMUX_SetAttr(recording.handle, 0x201, &id), ZU_OK);
    EXPECT_EQ(id, 0u);
}

// Catches a push without a reader, and output that is gone before the copy that follows the stop.
TEST(Multiplexer, StatesDecideWhatIsTaken)
{
    Recording recording;
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
    ASSERT_EQ(recording.detach_pictures(), ZU_OK);
    EXPECT_NE(recording.push(unit, 66666), ZU_OK);
    EXPECT_NE(recording.detach_pictures(), ZU_OK);
    ASSERT_EQ(ZU_TSMUX_Close(recording.handle), ZU_OK);
    EXPECT_NE(ZU_TSMUX_Close(recording.handle), ZU_OK);
    EXPECT_NE(ZU_TSMUX_Stop(recording.handle), ZU_OK);
    EXPECT_TRUE(check(recording.output, {}).good());
}

// Catches a recording of sound alone that stays empty, since no picture moves its clock.
TEST(Multiplexer, SoundAloneMakesAStream)
{
    Recording recording({.pictures = false, .sound = true});
    ASSERT_EQ(recording.start(), ZU_OK);
    EXPECT_TRUE(
        wait_until([&] { return recording.copy() == 0 && recording.output.size() >= 60 * 188; }));
    const Report report = check(recording.output, {});
    EXPECT_EQ(text_of(report.findings), "");
    ASSERT_EQ(report.streams.size(), 1u);
    EXPECT_GT(report.streams[0].access_units, 10u);
}

} // namespace
