// The capture device on its test card: when pictures come, what they may overwrite, and how it stops.
#include "capture/capture_schedule.h"
#include "capture/placement.h"
#include "capture_fixture.h"

#include <future>
#include <thread>

namespace zu3host {
namespace {

class TestCardCapture : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("ZU3_DISPLAY", "testcard", 1);
        ASSERT_EQ(capture.connect(), ZU_OK);
    }
    void TearDown() override { unsetenv("ZU3_DISPLAY"); }
    Capture capture;
};

// Catches a screen that is recorded blurred where it fits exactly, distorted, or outside of what is seen.
TEST(CapturePlacement, KeepsShapeAndOneToOne)
{
    const struct {
        PictureSize display, out, visible;
        Placement placed;
    } cases[] = {
        {{1280, 720}, {1280, 736}, {1280, 720}, {0, 0, {1280, 720}}},
        {{1365, 767}, {1376, 768}, {1365, 767}, {0, 0, {1365, 767}}},
        {{1280, 720}, {1280, 736}, {1280, 736}, {0, 0, {1280, 720}}},
        {{1366, 768}, {1376, 768}, {1360, 768}, {0, 2, {1360, 764}}},
        {{1366, 768}, {1280, 736}, {1280, 720}, {0, 0, {1280, 720}}},
        {{640, 480}, {1280, 736}, {1280, 720}, {160, 0, {960, 720}}},
        {{1280, 1024}, {1920, 1088}, {1920, 1080}, {284, 0, {1350, 1080}}},
        {{720, 1280}, {640, 480}, {640, 480}, {184, 0, {270, 480}}},
        {{8000, 16}, {64, 64}, {50, 50}, {0, 24, {50, 2}}},
        {{7680, 4320}, {1920, 1088}, {1920, 1080}, {0, 0, {1920, 1080}}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(place_display(c.display, c.out, c.visible), c.placed) << "case " << &c - cases;
}

// Catches drift, bursts after a pause, and pictures that are counted twice or not at all.
TEST(CaptureScheduleTimes, PassesOverWhatIsMoreThanAnIntervalLate)
{
    const CaptureSchedule::Time start{};
    CaptureSchedule schedule(start, 30);
    EXPECT_EQ(schedule.due(), start);
    schedule.advance();
    EXPECT_EQ(schedule.due() - start, 33'333'333ns);
    EXPECT_EQ(schedule.pass_over_late(start + 66'000'000ns), 0u) << "late by less than an interval";
    EXPECT_EQ(schedule.pass_over_late(start + 250'000'000ns), 6u);
    EXPECT_EQ(schedule.number(), 7u);
    EXPECT_EQ(schedule.pass_over_late(start + 24h), 24 * 3600 * 30 - 7u);
    EXPECT_EQ(schedule.due() - start, 24h);
}

// Catches wrong matrices and ranges, a queue that grows behind a slow callback, drops that the statistics do
// not show, and times that are off the rate's grid.
TEST_F(TestCardCapture, ShowsColoursAndCountsWhatASlowCallbackMisses)
{
    ASSERT_EQ(capture.start(640, 480, 60), ZU_OK);
    uint32_t number = 0;
    uint64_t due = 0, late = 0, captured = 0;
    capture.look([&](const ZU_CAP_FrameInfo_t& frame) {
        expect_near(capture.at(frame, 24, 72), red, "red");
        expect_near(capture.at(frame, 88, 72), white, "white");
        expect_near(capture.at(frame, 152, 72), black, "black");
        number = capture.number(frame);
        due = due_time_of_picture_in_callback().value();
        late = counters().pictures_dropped_late;
        captured = counters().pictures_captured;
        std::this_thread::sleep_for(170ms); // what the library does to it when the encoder is busy
    });
    capture.look([&](const ZU_CAP_FrameInfo_t& frame) {
        late = counters().pictures_dropped_late - late;
        EXPECT_GE(late, 7u);
        EXPECT_EQ(capture.number(frame) - number, late + counters().pictures_captured - captured);
        const uint64_t now_due = due_time_of_picture_in_callback().value();
        EXPECT_NEAR(static_cast<double>(now_due - due), (capture.number(frame) - number) * 1e6 / 60, 1.0);
        EXPECT_LE(now_due, static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch() / 1us));
    });
    EXPECT_FALSE(due_time_of_picture_in_callback()) << "on another thread";
    capture.close();
    EXPECT_EQ(counters().pictures_due, counters().pictures_captured + counters().pictures_dropped_late +
                                           counters().pictures_dropped_no_buffer +
                                           counters().pictures_dropped_no_display);
}

// Catches pictures that are overwritten while the encoder reads them.
TEST_F(TestCardCapture, LeavesLeasedPicturesAlone)
{
    const PictureLayout layout = PictureLayout::of(320, 240);
    const BlockOwner region(static_cast<uint32_t>(3 * layout.picture_bytes() + 2 * picture_alignment));
    const auto address = [&](uint64_t phys) { return region.block.virt + (phys - region.block.phys); };
    ASSERT_EQ(capture.start(layout.stride, layout.lines, 200, &region.block), ZU_OK);
    std::vector<std::pair<uint64_t, uint32_t>> leased; // and the numbers that they show
    for (int i = 0; i < 3; ++i)
        capture.look([&](const ZU_CAP_FrameInfo_t& frame) {
            leased.emplace_back(frame.phyYAddr, capture.number(frame));
            lease_picture(address(frame.phyYAddr));
        });
    const uint64_t dropped = counters().pictures_dropped_no_buffer;
    EXPECT_TRUE(capture.wait_until([&] { return counters().pictures_dropped_no_buffer > dropped + 3; }));
    for (const auto& [phys, number] : leased)
        EXPECT_EQ(capture.number({0, 0, phys, phys + layout.luma_bytes(), 0}), number);
    return_picture(address(leased[1].first));
    capture.look([&](const ZU_CAP_FrameInfo_t& frame) { EXPECT_EQ(frame.phyYAddr, leased[1].first); });
    capture.close();
    return_picture(address(leased[0].first));
    return_picture(address(leased[2].first));
    for (const auto& [phys, number] : leased)
        EXPECT_FALSE(picture_is_leased(address(phys))) << "a lease is left";
}

// Catches a stop that waits for a callback which waits for the one who stops, and callbacks after a close.
TEST_F(TestCardCapture, StopsWhileACallbackIsHeld)
{
    for (int round = 0; round < 2; ++round) { // a start after it works again
        std::promise<void> held, stopped;
        auto stopping = stopped.get_future();
        ASSERT_EQ(capture.start(320, 256, 100), ZU_OK);
        EXPECT_NE(capture.start(320, 256, 100), ZU_OK) << "started twice";
        std::thread stopper([&, holding = held.get_future()]() mutable {
            EXPECT_EQ(holding.wait_for(20s), std::future_status::ready);
            EXPECT_EQ(ZU_CAP_CaptureStop(capture.handle), ZU_OK);
            stopped.set_value();
        });
        capture.look([&](const ZU_CAP_FrameInfo_t&) {
            EXPECT_NE(ZU_CAP_Close(capture.handle), ZU_OK) << "a thread cannot join itself";
            held.set_value();
            EXPECT_EQ(stopping.wait_for(20s), std::future_status::ready);
        });
        stopper.join();
    }
}

// Catches writes past a buffer that a caller sized too small, and sizes that overflow.
TEST_F(TestCardCapture, RefusesImpossibleStills)
{
    const BlockOwner owner(65536);
    const struct {
        uint32_t format;
        PictureSize size;
        uint32_t pitch, bytes;
        bool possible;
    } cases[] = {
        {E_ZU_CAP_FORMAT_BGRA, {100, 100}, 400, 40000, true},
        {E_ZU_CAP_FORMAT_BGRA, {100, 100}, 400, 39999, false},
        {E_ZU_CAP_FORMAT_BGRA, {100, 100}, 399, 40000, false},
        {E_ZU_CAP_FORMAT_BGRA, {128, 129}, 512, 1u << 20, false},
        {E_ZU_CAP_FORMAT_YUYV, {101, 99}, 202, 202 * 99, true},
        {E_ZU_CAP_FORMAT_RGB565, {101, 99}, 202, 202 * 99, true},
        {E_ZU_CAP_FORMAT_NV12, {101, 99}, 151, 151 * 99, true},
        {E_ZU_CAP_FORMAT_NV12, {101, 99}, 151, 151 * 99 - 1, false},
        {3, {100, 100}, 400, 65536, false},
        {E_ZU_CAP_FORMAT_BGRA, {0, 100}, 400, 65536, false},
        {E_ZU_CAP_FORMAT_BGRA, {0x40000001, 1}, 4, 65536, false},
    };
    for (const auto& c : cases) {
        std::memset(owner.block.virt, 0xAB, owner.block.size);
        EXPECT_EQ(capture.still(owner.block, c.format, c.size, c.pitch, c.bytes) == ZU_OK, c.possible)
            << &c - cases;
        for (uint32_t i = c.possible ? c.bytes : 0; i < owner.block.size; ++i)
            ASSERT_EQ(owner.block.virt[i], 0xAB)
                << "case " << &c - cases << " wrote at " << i << " of " << c.bytes;
        EXPECT_NE(owner.block.virt[0] == 0xAB, c.possible);
    }
}

} // namespace
} // namespace zu3host
