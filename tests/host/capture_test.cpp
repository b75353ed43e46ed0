// The capture device on its test card: when pictures come, what they overwrite, how it stops.
#include "base/picture_layout.h"
#include "capture/capture_schedule.h"
#include "capture/change_pace.h"
#include "capture/image_placement.h"
#include "capture/patient_source.h"
#include "capture/picture_pool.h"
#include "helpers.h"
#include "picture/picture_in_flight.h"
#include "statistics/counters.h"
#include "zu3/cap.h"
#include "zu3/disp.h"
#include "zu3_host/statistics.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <vector>

using namespace zu3host;

namespace {

/** A capture device whose pictures a test looks at one by one, in the callback. */
class TestCardCapture : public testing::Test {
protected:
    using Frame = ZU_CAP_FrameInfo_t;
    using Look = std::function<void(const Frame&)>;

    void SetUp() override
    {
        setenv("ZU3_DISPLAY", "testcard", 1);
        char name[64] = "ZU_DISP_HD0";
        const ZU_DISP_GetHandleParams_t display_name{name};
        const ZU_CAP_OpenParams_t open{};
        const ZU_CAP_ConnectParams_t connect{};
        uint32_t display = 0;
        ASSERT_EQ(ZU_CAP_Open(&open, &handle), ZU_OK);
        ASSERT_EQ(ZU_DISP_GetHandle(&display_name, &display), ZU_OK);
        ASSERT_EQ(ZU_CAP_ConnectInput(handle, display, &connect), ZU_OK);
    }
    void TearDown() override { ZU_CAP_Close(handle); }

    uint32_t start(uint32_t width, uint32_t height, uint32_t rate, const MemoryBlock& region = {})
    {
        const ZU_CAP_CallbackParams_t callback{0, &TestCardCapture::picture, 1, this, 0};
        uint64_t id = 0;
        EXPECT_EQ(ZU_CAP_RegisterCallback(handle, &callback, &id), ZU_OK);
        ZU_CAP_CaptureParams_t params{};
        params.stOutput.u32OutWidth = width;
        params.stOutput.u32OutHeight = height;
        params.stOutput.u32OutFrameRate = rate;
        params.stOutput.eOutFormat = E_ZU_CAP_FORMAT_NV12;
        params.stOutput.u64VirtAddr = reinterpret_cast<uintptr_t>(region.virt);
        params.stOutput.u32OutSize = region.size;
        return ZU_CAP_CaptureStart(handle, &params);
    }
    /** Has the next picture looked at in its callback before it is given back. */
    void look(const Look& at)
    {
        look_ = &at;
        ASSERT_TRUE(wait_until([this] { return !look_.load(); })) << "no picture came";
    }

    uint32_t handle = 0;

private:
    static u32 picture(s32 handle, u32, Frame* frame, void* user)
    {
        auto& self = *static_cast<TestCardCapture*>(user);
        const Look* const look = self.look_;
        if (look)
            (*look)(*frame);
        EXPECT_EQ(ZU_CAP_ProcessBufDone(static_cast<u32>(handle), frame->u32BufIndex), ZU_OK);
        if (look)
            self.look_ = nullptr;
        return 1;
    }

    std::atomic<const Look*> look_{nullptr};
};

/** A source that gives a picture when the test says so. */
struct HeldSource : WaitingSource {
    std::optional<BgraImage> glance(const GrabRequest&) override
    {
        return at_a_glance ? std::optional(BgraImage{nullptr, 0, {}, 1000}) : std::nullopt;
    }
    std::optional<BgraImage> grab(const GrabRequest&) override
    {
        std::unique_lock lock(mutex);
        ++grabs;
        changed.wait(lock, [this] { return pictures > 0 || ended; });
        if (ended)
            return std::nullopt;
        --pictures;
        return BgraImage{nullptr, 0, {}, grabs};
    }
    void cut() override
    {
        const std::lock_guard lock(mutex);
        ended = true;
        changed.notify_all();
    }
    void give(int count)
    {
        const std::lock_guard lock(mutex);
        pictures += count;
        changed.notify_all();
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::atomic<uint64_t> grabs{0};
    std::atomic<bool> at_a_glance{false};
    int pictures = 0;
    bool ended = false;
};

// Catches a slow display taken for lost or asked twice, a stale picture, a stop that waits for it or
// a client that gives it up and still does, a still screen for which a thread wakes up, and a glance
// at a source that is in use.
TEST(PatientSource, GivesUpInTimeButNotTheAnswer)
{
    HeldSource* held = nullptr;
    const auto source = PatientSource::open("It", [&held] {
        auto opened = std::make_unique<HeldSource>();
        held = opened.get();
        return opened;
    });
    ASSERT_TRUE(source);
    std::stop_source stop;
    const auto grab = [&](bool pointer, std::chrono::milliseconds patience) {
        const auto image = source->grab({{}, 0, pointer, stop.get_token(), patience});
        return image ? image->serial : 0;
    };
    held->give(1);
    EXPECT_EQ(grab(true, 60s), 1u);
    EXPECT_EQ(counters().display_silent_ms, 0u);
    held->at_a_glance = true;
    EXPECT_EQ(grab(true, 0ms), 1000u);
    held->at_a_glance = false;
    EXPECT_EQ(grab(true, 100ms), 0u);
    held->at_a_glance = true;
    EXPECT_EQ(grab(true, 1000ms), 0u);
    held->at_a_glance = false;
    EXPECT_EQ(counters().display_silent_ms, 1100u);
    const auto grab_and_give = [&](bool pointer, int pictures) {
        auto picture = std::async(std::launch::async, grab, pointer, 60s);
        const uint32_t silent_ms = counters().display_silent_ms;
        EXPECT_TRUE(wait_until([&] { return counters().display_silent_ms > silent_ms; }));
        held->give(pictures);
        return picture.get();
    };
    EXPECT_EQ(grab_and_give(true, 1), 2u) << "asked again while the answer was on the way";
    EXPECT_EQ(counters().display_silent_ms, 0u);
    EXPECT_EQ(grab(true, 50ms), 0u);
    EXPECT_EQ(grab_and_give(false, 2), 4u) << "the picture that was asked for with the pointer";
    auto given_up = std::async(std::launch::async, grab, true, 3600s);
    EXPECT_TRUE(wait_until([&] {
        give_up_displays();
        return given_up.wait_for(0s) == std::future_status::ready;
    }));
    stop.request_stop();
    EXPECT_EQ(grab(true, 3600s), 0u);
    EXPECT_EQ(given_up.get(), 0u);
    EXPECT_FALSE(PatientSource::open("None", [] { return nullptr; }));
}

// Catches a screen that is blurred although it fits exactly, distorted, or out of sight.
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

// Catches an odd display that is scaled although cutting suffices, or cut although it fits.
TEST(CapturePlacement, LeavesOutTheLastColumnOrRowOfAnOddSize)
{
    const struct {
        PictureSize display, visible, shown;
    } cases[] = {
        {{1367, 769}, {1366, 768}, {1366, 768}}, {{1366, 769}, {1376, 768}, {1366, 768}},
        {{1367, 768}, {1376, 768}, {1367, 768}}, {{1367, 768}, {1366, 768}, {1366, 768}},
        {{1366, 768}, {1366, 768}, {1366, 768}}, {{1367, 900}, {1366, 768}, {1367, 900}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(without_odd_edge(c.display, c.visible), c.shown) << "case " << &c - cases;
}

// Catches drift, a long burst after a pause, and pictures that are counted twice or not at all.
TEST(CaptureScheduleTimes, PassesOverWhatIsTooLateToBeMadeUp)
{
    const CaptureSchedule::Time start{};
    CaptureSchedule schedule(start, 30);
    EXPECT_EQ(schedule.due(), start);
    schedule.advance();
    EXPECT_EQ(schedule.due() - start, 33'333'333ns);
    EXPECT_EQ(schedule.pass_over_late(start + 66'000'000ns), 0u) << "late by less than an interval";
    EXPECT_EQ(schedule.pass_over_late(start + 300'000'000ns), 0u) << "made up";
    EXPECT_EQ(schedule.pass_over_late(start + 301'000'000ns), 8u) << "but not more than eight";
    EXPECT_EQ(schedule.number(), 9u);
    EXPECT_EQ(schedule.pass_over_late(start + 24h), 24 * 3600 * 30 - 9u);
    EXPECT_EQ(schedule.due() - start, 24h);
}

// Catches a machine that stays too slow whose pictures all show what came after their time, and a
// short delay, minutes later, that costs pictures.
TEST(CaptureScheduleTimes, MakesUpOncePerSecondInTime)
{
    const CaptureSchedule::Time start{};
    CaptureSchedule schedule(start, 30);
    const auto passed_over = [&schedule](int pictures, std::chrono::nanoseconds late) {
        uint64_t passed = 0;
        for (int i = 0; i < pictures; ++i, schedule.advance())
            passed += schedule.pass_over_late(schedule.due() + late);
        return passed;
    };
    EXPECT_EQ(passed_over(16, 50ms), 0u) << "at the start";
    EXPECT_EQ(passed_over(1, 50ms), 1u) << "one too many in a row";
    EXPECT_EQ(passed_over(29, 10ms), 0u);
    EXPECT_EQ(passed_over(1, 50ms), 1u) << "too soon after";
    EXPECT_EQ(passed_over(30, 10ms), 0u);
    EXPECT_EQ(passed_over(8, 50ms), 0u);
}

// Catches a queue behind a slow callback, drops that are not counted, times off the rate's grid.
TEST_F(TestCardCapture, CountsWhatASlowCallbackMisses)
{
    ASSERT_EQ(start(640, 480, 60), ZU_OK);
    uint64_t due = 0, late = 0, captured = 0;
    look([&](const Frame&) {
        due = captured_picture_in_callback()->time_us;
        late = counters().pictures_dropped_late;
        captured = counters().pictures_captured;
        // as the library does when the encoder is busy
        std::this_thread::sleep_for(170ms);
    });
    look([&](const Frame&) {
        late = counters().pictures_dropped_late - late;
        captured = counters().pictures_captured - captured;
        EXPECT_GE(late, 7u);
        const uint64_t now_due = captured_picture_in_callback()->time_us;
        EXPECT_NEAR(static_cast<double>(now_due - due),
                    static_cast<double>(late + captured) * 1e6 / 60, 1.0);
        EXPECT_LE(now_due,
                  static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch() / 1us));
    });
    EXPECT_FALSE(captured_picture_in_callback()) << "on another thread";
    EXPECT_EQ(ZU_CAP_Close(handle), ZU_OK);
    zu3_host_statistics_t told{}, begun{};
    EXPECT_EQ(zu3_host_statistics(&told, sizeof told + 100), sizeof told);
    EXPECT_EQ(told.pictures_due, told.pictures_captured + told.pictures_dropped_late +
                                     told.pictures_dropped_no_buffer +
                                     told.pictures_dropped_no_display);
    EXPECT_EQ(told.pictures_dropped_late, counters().pictures_dropped_late);
    EXPECT_EQ(zu3_host_statistics(&begun, 8), sizeof told);
    EXPECT_EQ(begun.pictures_due, told.pictures_due);
    EXPECT_EQ(begun.pictures_captured, 0u);
}

// Catches pictures that are overwritten while the encoder reads them.
TEST_F(TestCardCapture, LeavesLeasedPicturesAlone)
{
    constexpr auto layout = PictureLayout::of(320, 240);
    const DeviceBlock region(3 * layout.picture_bytes() + 2 * picture_alignment);
    ASSERT_EQ(start(layout.stride, layout.lines, 200, region), ZU_OK);
    // and what they show, which moves
    std::vector<std::pair<uint8_t*, std::vector<uint8_t>>> leased;
    for (int i = 0; i < 3; ++i)
        look([&](const Frame& frame) {
            uint8_t* const picture = region.virt + (frame.phyYAddr - region.phys);
            leased.emplace_back(picture, std::vector(picture, picture + layout.picture_bytes()));
            lease_picture(picture);
        });
    const uint64_t dropped = counters().pictures_dropped_no_buffer;
    EXPECT_TRUE(wait_until([&] { return counters().pictures_dropped_no_buffer > dropped + 3; }));
    for (const auto& [picture, shown] : leased)
        EXPECT_TRUE(std::equal(shown.begin(), shown.end(), picture));
    return_picture(leased[1].first);
    look([&](const Frame& frame) {
        EXPECT_EQ(region.virt + (frame.phyYAddr - region.phys), leased[1].first);
    });
    EXPECT_EQ(ZU_CAP_Close(handle), ZU_OK);
    return_picture(leased[0].first);
    return_picture(leased[2].first);
    for (const auto& [picture, shown] : leased)
        EXPECT_FALSE(picture_is_leased(picture)) << "a lease is left";
}

// Catches a stop that deadlocks with the callback that waits for it, and callbacks after a close.
TEST_F(TestCardCapture, StopsWhileACallbackIsHeld)
{
    for (int round = 0; round < 2; ++round) { // a start after it works again
        std::promise<void> held;
        ASSERT_EQ(start(320, 256, 100), ZU_OK);
        EXPECT_NE(start(320, 256, 100), ZU_OK) << "started twice";
        auto stopped = std::async(std::launch::async, [&] {
            held.get_future().wait_for(20s);
            return ZU_CAP_CaptureStop(handle);
        });
        look([&](const Frame&) {
            EXPECT_NE(ZU_CAP_Close(handle), ZU_OK) << "a thread cannot join itself";
            held.set_value();
            EXPECT_EQ(stopped.wait_for(20s), std::future_status::ready);
        });
        EXPECT_EQ(stopped.get(), ZU_OK);
    }
}

// Catches writes past a buffer that a caller sized too small, and sizes that overflow.
TEST_F(TestCardCapture, RefusesImpossibleStills)
{
    const DeviceBlock memory(65536);
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
        SCOPED_TRACE(&c - cases);
        std::memset(memory.virt, 0xAB, memory.size);
        ZU_CAP_CaptureParams_t params{};
        params.stOutput.u32OutWidth = c.size.width;
        params.stOutput.u32OutHeight = c.size.height;
        params.stOutput.u32OutSize = c.bytes;
        params.stOutput.eOutFormat = c.format;
        params.stOutput.u32Pitch = c.pitch;
        params.stOutput.u64PhyAddr = memory.phys;
        ZU_CAP_FrameInfo_t frame{};
        ASSERT_EQ(ZU_CAP_CaptureOne(handle, &params, &frame) == ZU_OK, c.possible);
        if (c.possible) {
            EXPECT_EQ(ZU_CAP_ProcessBufDone(handle, frame.u32BufIndex), ZU_OK);
            EXPECT_NE(memory.virt[0], 0xAB);
        }
        EXPECT_NE(ZU_CAP_ProcessBufDone(handle, frame.u32BufIndex), ZU_OK) << "given back twice";
        EXPECT_TRUE(std::all_of(memory.virt + (c.possible ? c.bytes : 0), memory.virt + memory.size,
                                [](uint8_t each) { return each == 0xAB; }));
    }
}

} // namespace

// Catches a picture that waits although no newer one can come before it is due, and one that is
// handed out although a newer one may come.
TEST(ChangePace, TellsTheLastChangeBeforeAMoment)
{
    using std::chrono::milliseconds;
    const struct {
        const char* words;
        std::vector<int> arrivals;
        int due;
        bool is_last;
    } cases[] = {
        {"a frame before it is due", {100}, 116, true},
        {"exactly a frame before", {100}, 117, false},
        {"long before", {100}, 133, false},
        {"when it is due", {100}, 100, true},
        {"late", {100}, 90, true},
        {"a slow pace", {0, 100, 200}, 217, false},
        {"a slow pace, less than a frame before", {0, 100, 200}, 216, true},
        {"a screen that is faster than stated", {0, 8, 100}, 108, false},
        {"the same, less than its frame before", {0, 8, 100}, 107, true},
        {"a fast frame, eight frames ago", {0, 8, 25, 42, 59, 76, 93, 110, 127}, 140, false},
        {"the same, nine frames ago", {0, 8, 25, 42, 59, 76, 93, 110, 127, 144}, 157, true},
        {"two at the same time", {100, 100}, 116, true},
        {"a clock that was put back", {100, 50}, 66, true},
    };
    for (const auto& c : cases) {
        ChangePace pace(milliseconds(17));
        const ChangePace::Clock::time_point start{};
        for (const int arrival : c.arrivals)
            pace.note(start + milliseconds(arrival), milliseconds(arrival));
        EXPECT_EQ(pace.is_last_before(start + milliseconds(c.due)), c.is_last) << c.words;
    }
}

/** Bytes of a picture that are in memory. */
size_t resident_bytes(const PicturePool& pool, uint32_t index)
{
    const size_t bytes = pool.layout().picture_bytes();
    std::vector<unsigned char> pages(bytes / 4096);
    EXPECT_EQ(mincore(pool.picture(index), bytes, pages.data()), 0);
    return 4096 * static_cast<size_t>(std::count_if(pages.begin(), pages.end(),
                                                    [](unsigned char page) { return page & 1; }));
}

// Catches memory that a busy moment leaves behind, and memory taken from a picture in use.
TEST(PicturePool, GivesBackTheMemoryOfABusyMoment)
{
    const PictureLayout layout{128, 64};
    const size_t bytes = layout.picture_bytes();
    const auto pool = PicturePool::own(layout, 100);
    const auto use = [&](uint32_t index) {
        EXPECT_EQ(pool->acquire(), index);
        std::memset(pool->picture(index), 7, bytes);
        pool->contents(index).serial = index;
    };
    for (const uint32_t index : {100u, 101u, 102u})
        use(index);
    for (const uint32_t index : {100u, 101u, 102u})
        EXPECT_TRUE(pool->release(index));
    lease_picture(pool->picture(101));
    const auto pass = [&](uint64_t pictures) {
        for (uint64_t i = 0; i < pictures; ++i) {
            use(100);
            EXPECT_TRUE(pool->release(100));
        }
    };
    pass(PicturePool::acquires_until_idle - 1);
    EXPECT_EQ(resident_bytes(*pool, 102), bytes);
    pass(3);
    EXPECT_EQ(resident_bytes(*pool, 102), 0u);
    EXPECT_EQ(pool->contents(102).serial, 0u) << "a picture that is not there is known";
    EXPECT_EQ(resident_bytes(*pool, 101), bytes) << "the encoder still reads it";
    EXPECT_EQ(resident_bytes(*pool, 100), bytes);
    return_picture(pool->picture(101));
    pass(1);
    EXPECT_EQ(resident_bytes(*pool, 101), 0u);
    EXPECT_EQ(pool->picture(101)[0], 0);
}
