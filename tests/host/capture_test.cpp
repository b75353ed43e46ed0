#include "capture/capture_schedule.h"
#include "capture/picture_leases.h"
#include "capture/picture_time.h"
#include "capture/placement.h"
#include "common/picture_layout.h"
#include "encoder/open_encoder_scopes.h"
#include "host/virtual_screen.h"
#include "memory/device_memory.h"
#include "statistics/counters.h"
#include "zu3/cap.h"
#include "zu3/disp.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <vector>

using namespace std::chrono_literals;
using namespace zu3host;

namespace {

constexpr auto limit = 20s;

struct Yuv {
    int y, u, v;
};
constexpr Yuv red{81, 90, 240};
constexpr Yuv white{235, 128, 128};
constexpr Yuv black{16, 128, 128};

void expect_near(Yuv is, Yuv wanted, const char* what)
{
    EXPECT_NEAR(is.y, wanted.y, 3) << what;
    EXPECT_NEAR(is.u, wanted.u, 3) << what;
    EXPECT_NEAR(is.v, wanted.v, 3) << what;
}

/** A capture device whose pictures a test looks at one by one, in the callback. */
class Capture {
public:
    using Look = std::function<void(const ZU_CAP_FrameInfo_t&)>;

    Capture()
    {
        const ZU_CAP_OpenParams_t open{};
        EXPECT_EQ(ZU_CAP_Open(&open, &handle), ZU_OK);
        char name[64] = "ZU_DISP_HD0";
        const ZU_DISP_GetHandleParams_t display_name{name};
        EXPECT_EQ(ZU_DISP_GetHandle(&display_name, &display), ZU_OK);
    }
    ~Capture() { close(); }

    uint32_t connect()
    {
        const ZU_CAP_ConnectParams_t params{};
        return ZU_CAP_ConnectInput(handle, display, &params);
    }
    uint32_t start(uint32_t width, uint32_t height, uint32_t rate, const MemoryBlock* region = nullptr)
    {
        const ZU_CAP_CallbackParams_t callback{0, &Capture::picture, 1, this, 0};
        uint64_t id = 0;
        EXPECT_EQ(ZU_CAP_RegisterCallback(handle, &callback, &id), ZU_OK);
        ZU_CAP_CaptureParams_t params{};
        params.stOutput.u32OutWidth = layout.stride = width;
        params.stOutput.u32OutHeight = layout.lines = height;
        params.stOutput.u32OutFrameRate = rate;
        params.stOutput.eOutFormat = E_ZU_CAP_FORMAT_NV12;
        if (region) {
            params.stOutput.u64VirtAddr = reinterpret_cast<uintptr_t>(region->virt);
            params.stOutput.u32OutSize = region->size;
        }
        return ZU_CAP_CaptureStart(handle, &params);
    }
    uint32_t still(const MemoryBlock& block, uint32_t format, PictureSize size, uint32_t pitch,
                   uint32_t bytes, bool osd = false)
    {
        ZU_CAP_CaptureParams_t params{};
        params.u32Osd = osd;
        params.stOutput.u32OutWidth = size.width;
        params.stOutput.u32OutHeight = size.height;
        params.stOutput.u32OutSize = bytes;
        params.stOutput.eOutFormat = format;
        params.stOutput.u32Pitch = pitch;
        params.stOutput.u64PhyAddr = block.phys;
        ZU_CAP_FrameInfo_t frame{};
        const uint32_t result = ZU_CAP_CaptureOne(handle, &params, &frame);
        if (result == ZU_OK) {
            EXPECT_EQ(ZU_CAP_ProcessBufDone(handle, frame.u32BufIndex), ZU_OK);
            EXPECT_NE(ZU_CAP_ProcessBufDone(handle, frame.u32BufIndex), ZU_OK) << "given back twice";
        }
        return result;
    }
    void close()
    {
        if (handle) {
            EXPECT_EQ(ZU_CAP_Close(handle), ZU_OK);
        }
        handle = 0;
    }
    /** Has the next picture, or the first that satisfies, looked at in its callback before it is given back.
     */
    void look(const Look& at)
    {
        std::unique_lock lock(mutex_);
        look_ = at;
        ASSERT_TRUE(changed_.wait_for(lock, limit, [this] { return !look_; })) << "no picture came";
    }
    bool wait_until(const std::function<bool()>& condition)
    {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        std::unique_lock lock(mutex_);
        while (!condition() && std::chrono::steady_clock::now() < deadline)
            changed_.wait_for(lock, 1ms);
        return condition();
    }

    Yuv at(const ZU_CAP_FrameInfo_t& frame, uint32_t x, uint32_t y) const
    {
        const MemoryBlock block = block_of_phys(frame.phyYAddr).value();
        const uint8_t* luma = block.virt + (frame.phyYAddr - block.phys);
        const uint8_t* chroma =
            block.virt + (frame.phyCAddr - block.phys) + layout.stride * (y / 2) + (x & ~1u);
        return {luma[layout.stride * y + x], chroma[0], chroma[1]};
    }
    /** The number that the test card shows. */
    uint32_t number(const ZU_CAP_FrameInfo_t& frame) const
    {
        uint32_t value = 0;
        for (uint32_t bit = 0; bit < 32; ++bit)
            value |= static_cast<uint32_t>(at(frame, bit % 16 * 16 + 8, bit / 16 * 16 + 8).y > 128) << bit;
        return value;
    }

    uint32_t handle = 0;
    uint32_t display = 0;
    PictureLayout layout{};

private:
    static u32 picture(s32 handle, u32, ZU_CAP_FrameInfo_t* frame, void* user)
    {
        auto& self = *static_cast<Capture*>(user);
        Look look;
        {
            const std::lock_guard lock(self.mutex_);
            look = self.look_;
        }
        if (look)
            look(*frame);
        EXPECT_EQ(ZU_CAP_ProcessBufDone(static_cast<u32>(handle), frame->u32BufIndex), ZU_OK);
        const std::lock_guard lock(self.mutex_);
        if (look)
            self.look_ = nullptr;
        self.changed_.notify_all();
        return 1;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    Look look_;
};

class TestCardCapture : public testing::Test {
protected:
    void SetUp() override { setenv("ZU3_DISPLAY", "testcard", 1); }
    void TearDown() override { unsetenv("ZU3_DISPLAY"); }
};

struct BlockOwner {
    explicit BlockOwner(uint32_t bytes) : block(allocate_block("test", bytes).value()) {}
    ~BlockOwner() { free_block(block.phys); }
    MemoryBlock block;
};

} // namespace

// Catches a screen that is recorded blurred where it fits exactly, distorted, or outside of what is seen.
TEST(CapturePlacement, KeepsShapeAndOneToOne)
{
    const struct {
        PictureSize display, out, visible;
        Placement placed;
    } cases[] = {
        {{1280, 720}, {1280, 736}, {1280, 720}, {0, 0, {1280, 720}}},
        {{1366, 768}, {1376, 768}, {1366, 768}, {0, 0, {1366, 768}}},
        {{1365, 767}, {1376, 768}, {1365, 767}, {0, 0, {1365, 767}}},
        {{1280, 720}, {1280, 736}, {1280, 736}, {0, 0, {1280, 720}}},
        {{1366, 768}, {1376, 768}, {1360, 768}, {0, 2, {1360, 764}}},
        {{1366, 768}, {1280, 736}, {1280, 720}, {0, 0, {1280, 720}}},
        {{1920, 1080}, {1280, 736}, {1280, 720}, {0, 0, {1280, 720}}},
        {{640, 480}, {1280, 736}, {1280, 720}, {160, 0, {960, 720}}},
        {{1280, 1024}, {1920, 1088}, {1920, 1080}, {284, 0, {1350, 1080}}},
        {{720, 1280}, {640, 480}, {640, 480}, {184, 0, {270, 480}}},
        {{8000, 16}, {64, 64}, {50, 50}, {0, 24, {50, 2}}},
        {{7680, 4320}, {1920, 1088}, {1920, 1080}, {0, 0, {1920, 1080}}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(place_display(c.display, c.out, c.visible), c.placed)
            << c.display.width << "x" << c.display.height << " in " << c.visible.width << "x"
            << c.visible.height;
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

// Catches wrong matrices and ranges, and a number that cannot be read.
TEST_F(TestCardCapture, ShowsColoursAndCountsPictures)
{
    Capture capture;
    ASSERT_EQ(capture.connect(), ZU_OK);
    ASSERT_EQ(capture.start(640, 480, 100), ZU_OK);
    uint32_t first = 0;
    capture.look([&](const ZU_CAP_FrameInfo_t& frame) {
        first = capture.number(frame);
        expect_near(capture.at(frame, 24, 72), red, "red");
        expect_near(capture.at(frame, 88, 72), white, "white");
        expect_near(capture.at(frame, 152, 72), black, "black");
    });
    capture.look([&](const ZU_CAP_FrameInfo_t& frame) { EXPECT_GT(capture.number(frame), first); });
}

// Catches a queue that grows behind a slow callback, drops that the statistics do not show, and times that
// are off the rate's grid.
TEST_F(TestCardCapture, CountsWhatASlowCallbackMisses)
{
    Capture capture;
    ASSERT_EQ(capture.connect(), ZU_OK);
    ASSERT_EQ(capture.start(640, 480, 60), ZU_OK);
    uint32_t number = 0;
    uint64_t due = 0;
    uint64_t late = 0, captured = 0;
    capture.look([&](const ZU_CAP_FrameInfo_t& frame) {
        number = capture.number(frame);
        due = due_time_of_picture_in_callback().value();
        late = counters().pictures_dropped_late;
        captured = counters().pictures_captured;
        std::this_thread::sleep_for(170ms); // what the library does to it when the encoder is busy
    });
    capture.look([&](const ZU_CAP_FrameInfo_t& frame) {
        EXPECT_GE(counters().pictures_dropped_late - late, 7u);
        EXPECT_EQ(capture.number(frame) - number,
                  counters().pictures_dropped_late - late + counters().pictures_captured - captured);
        EXPECT_NEAR(static_cast<double>(due_time_of_picture_in_callback().value() - due),
                    (capture.number(frame) - number) * 1e6 / 60, 1.0);
        EXPECT_LE(due_time_of_picture_in_callback().value(),
                  static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch() / 1us));
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
    std::vector<const uint8_t*> leased;
    {
        Capture capture;
        ASSERT_EQ(capture.connect(), ZU_OK);
        ASSERT_EQ(capture.start(layout.stride, layout.lines, 200, &region.block), ZU_OK);
        std::vector<uint32_t> numbers;
        for (int i = 0; i < 3; ++i)
            capture.look([&](const ZU_CAP_FrameInfo_t& frame) {
                numbers.push_back(capture.number(frame));
                leased.push_back(region.block.virt + (frame.phyYAddr - region.block.phys));
                lease_picture(leased.back());
            });
        const uint64_t dropped = counters().pictures_dropped_no_buffer;
        EXPECT_TRUE(capture.wait_until([&] { return counters().pictures_dropped_no_buffer > dropped + 3; }));
        for (size_t i = 0; i < leased.size(); ++i) {
            const uint64_t phys = region.block.phys + static_cast<uint64_t>(leased[i] - region.block.virt);
            EXPECT_EQ(capture.number({0, 0, phys, phys + layout.luma_bytes(), 0}), numbers[i]);
        }
        return_picture(leased[1]);
        capture.look([&](const ZU_CAP_FrameInfo_t& frame) {
            EXPECT_EQ(region.block.virt + (frame.phyYAddr - region.block.phys), leased[1]);
        });
    }
    return_picture(leased[0]);
    return_picture(leased[2]);
    for (const uint8_t* picture : leased)
        EXPECT_FALSE(picture_is_leased(picture)) << "a lease is left";
}

// Catches a stop that waits for a callback which waits for the one who stops, and callbacks after a close.
TEST_F(TestCardCapture, StopsWhileACallbackIsHeld)
{
    Capture capture;
    ASSERT_EQ(capture.connect(), ZU_OK);
    std::mutex mutex;
    std::condition_variable changed;
    bool held = false, stopped = false;
    for (int round = 0; round < 2; ++round) { // a start after it works again
        held = stopped = false;
        ASSERT_EQ(capture.start(320, 256, 100), ZU_OK);
        EXPECT_NE(capture.start(320, 256, 100), ZU_OK) << "started twice";
        std::thread stopper([&] {
            std::unique_lock lock(mutex);
            EXPECT_TRUE(changed.wait_for(lock, limit, [&] { return held; }));
            lock.unlock();
            EXPECT_EQ(ZU_CAP_CaptureStop(capture.handle), ZU_OK);
            lock.lock();
            stopped = true;
            changed.notify_all();
        });
        capture.look([&](const ZU_CAP_FrameInfo_t&) {
            EXPECT_NE(ZU_CAP_Close(capture.handle), ZU_OK) << "a thread cannot join itself";
            std::unique_lock lock(mutex);
            held = true;
            changed.notify_all();
            EXPECT_TRUE(changed.wait_for(lock, limit, [&] { return stopped; }));
        });
        stopper.join();
    }
}

// Catches writes past a buffer that a caller sized too small, and sizes that overflow.
TEST_F(TestCardCapture, RefusesImpossibleStills)
{
    Capture capture;
    ASSERT_EQ(capture.connect(), ZU_OK);
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
            << c.format << " " << c.size.width << " " << c.pitch << " " << c.bytes;
        const uint32_t written = c.possible ? c.bytes : 0;
        for (uint32_t i = written; i < owner.block.size; ++i)
            ASSERT_EQ(owner.block.virt[i], 0xAB)
                << "format " << c.format << " wrote at " << i << " of " << c.bytes;
        EXPECT_NE(owner.block.virt[0] == 0xAB, c.possible);
    }
}

// Catches a recording of the wrong thing, and a refusal that does not say what to do.
TEST(CaptureDisplay, SaysWhyThereIsNone)
{
    const struct {
        const char *choice, *display;
        std::vector<const char*> said;
    } cases[] = {
        {nullptr, nullptr, {"DISPLAY", "not set", "ZU3_DISPLAY=testcard"}},
        {"x11", ":987", {"DISPLAY=\":987\"", "cannot be reached"}},
        {"television", ":987", {"ZU3_DISPLAY=\"television\"", "testcard"}},
    };
    for (const auto& c : cases) {
        c.choice ? setenv("ZU3_DISPLAY", c.choice, 1) : unsetenv("ZU3_DISPLAY");
        c.display ? setenv("DISPLAY", c.display, 1) : unsetenv("DISPLAY");
        Capture capture;
        testing::internal::CaptureStderr();
        EXPECT_NE(capture.connect(), ZU_OK);
        const std::string log = testing::internal::GetCapturedStderr();
        for (const char* part : c.said)
            EXPECT_NE(log.find(part), std::string::npos) << part << " is missing in: " << log;
    }
    unsetenv("ZU3_DISPLAY");
    unsetenv("DISPLAY");
}

// Catches a shifted or wrongly sized picture, a pointer that is missing, and a screen whose change of size is
// lost.
TEST(CaptureScreen, FollowsScreenAndPointer)
{
    VirtualScreen screen(1366, 768);
    ASSERT_TRUE(screen.ready());
    screen.fill(0x000000, {0, 0, 1366, 768});
    screen.fill(0xFF0000, {1300, 700, 66, 68});
    const OpenSize encoder({1366, 768});
    Capture capture;
    ASSERT_EQ(capture.connect(), ZU_OK);
    ASSERT_EQ(capture.start(1376, 768, 50), ZU_OK);
    capture.look([&](const ZU_CAP_FrameInfo_t& frame) {
        expect_near(capture.at(frame, 1300, 700), red, "the first red pixel");
        expect_near(capture.at(frame, 1365, 767), red, "the screen's last pixel");
        expect_near(capture.at(frame, 1298, 698), black, "outside the red");
        expect_near(capture.at(frame, 1374, 767), black, "padding");
    });
    // A still screen is not fetched again, so what is drawn on it next must be noticed.
    for (const uint32_t colour : {0xFFFFFFu, 0xFF0000u}) {
        for (int still = 0; still < 4; ++still)
            capture.look([](const ZU_CAP_FrameInfo_t&) {});
        screen.fill(colour, {600, 300, 2, 2});
        capture.look([](const ZU_CAP_FrameInfo_t&) {}); // may have been grabbed before
        capture.look([&](const ZU_CAP_FrameInfo_t& frame) {
            expect_near(capture.at(frame, 601, 301), colour == 0xFFFFFF ? white : red,
                        "drawn on a still screen");
        });
    }
    for (const int16_t x : {100, 300}) {
        screen.show_pointer(x, 200);
        capture.look([&](const ZU_CAP_FrameInfo_t&) {}); // may have been grabbed before
        capture.look([&](const ZU_CAP_FrameInfo_t& frame) {
            expect_near(capture.at(frame, static_cast<uint32_t>(x) + 15, 215), white, "pointer");
            expect_near(capture.at(frame, static_cast<uint32_t>(x) + 16, 216), black, "beside the pointer");
            expect_near(capture.at(frame, 115 + 300 - static_cast<uint32_t>(x) + 85 * (x == 300), 215), black,
                        "where it was or will be");
        });
    }
    screen.resize(768, 768);
    screen.fill(0xFFFFFF, {0, 0, 768, 768});
    capture.look([&](const ZU_CAP_FrameInfo_t&) {});
    capture.look([&](const ZU_CAP_FrameInfo_t& frame) {
        expect_near(capture.at(frame, 200, 400), black, "left bar");
        expect_near(capture.at(frame, 310, 400), white, "picture");
        expect_near(capture.at(frame, 1060, 760), white, "picture");
        expect_near(capture.at(frame, 1080, 400), black, "right bar");
    });
    screen.resize(1366, 768);
    screen.fill(0xFF0000, {0, 0, 1366, 768});
    capture.look([&](const ZU_CAP_FrameInfo_t&) {});
    capture.look([&](const ZU_CAP_FrameInfo_t& frame) {
        expect_near(capture.at(frame, 1365, 767), red, "the whole screen again");
    });
}

// Catches stills with other pixels than the screen's, while a recording runs.
TEST(CaptureScreen, TakesExactStills)
{
    VirtualScreen screen(322, 200);
    ASSERT_TRUE(screen.ready());
    screen.fill(0xFF0000, {0, 0, 322, 200});
    screen.fill(0x123456, {10, 20, 1, 1});
    screen.show_pointer(100, 100);
    Capture capture;
    ASSERT_EQ(capture.connect(), ZU_OK);
    ASSERT_EQ(capture.start(336, 224, 100), ZU_OK);
    const BlockOwner owner(322 * 200 * 4);
    const uint8_t* memory = owner.block.virt;
    const auto pixel = [&](uint32_t x, uint32_t y) {
        uint32_t value;
        std::memcpy(&value, memory + (y * 322 + x) * 4, 4);
        return value;
    };
    for (const bool osd : {false, true}) {
        ASSERT_EQ(capture.still(owner.block, E_ZU_CAP_FORMAT_BGRA, {322, 200}, 0, owner.block.size, osd),
                  ZU_OK);
        EXPECT_EQ(pixel(10, 20), 0xFF123456u);
        EXPECT_EQ(pixel(321, 199), 0xFFFF0000u);
        EXPECT_EQ(pixel(108, 108), osd ? 0xFFFFFFFFu : 0xFFFF0000u) << "the pointer is the layer above";
    }
    ASSERT_EQ(capture.still(owner.block, E_ZU_CAP_FORMAT_YUYV, {322, 200}, 0, owner.block.size), ZU_OK);
    expect_near({memory[0], memory[1], memory[3]}, red, "YUYV");
    ASSERT_EQ(capture.still(owner.block, E_ZU_CAP_FORMAT_RGB565, {322, 200}, 0, owner.block.size), ZU_OK);
    EXPECT_EQ(memory[0] | memory[1] << 8, 0xF800);
    ASSERT_EQ(capture.still(owner.block, E_ZU_CAP_FORMAT_NV12, {322, 200}, 483, owner.block.size), ZU_OK);
    expect_near({memory[0], memory[322 * 200], memory[322 * 200 + 1]}, red, "NV12");
    ASSERT_EQ(capture.still(owner.block, E_ZU_CAP_FORMAT_BGRA, {322, 100}, 0, owner.block.size), ZU_OK);
    EXPECT_EQ(pixel(0, 50), 0xFF000000u) << "letterboxed";
    EXPECT_EQ(pixel(200, 80) & 0xFFF8FFFF, 0xFFF80000u) << "scaled";
}

// Catches a stop that waits for an X server that does not answer, and a frozen one taken for a lost one at
// once.
TEST(CaptureScreen, StopsWhileTheDisplayIsFrozen)
{
    VirtualScreen screen(320, 256);
    ASSERT_TRUE(screen.ready());
    const uint32_t lost = counters().display_lost;
    Capture capture;
    ASSERT_EQ(capture.connect(), ZU_OK);
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(capture.start(320, 256, 100), ZU_OK);
        capture.look([](const ZU_CAP_FrameInfo_t&) {});
        screen.freeze();
        const uint64_t captured = counters().pictures_captured;
        const auto quiet = std::chrono::steady_clock::now() + 100ms;
        EXPECT_TRUE(capture.wait_until([&] { return std::chrono::steady_clock::now() > quiet; }));
        EXPECT_LE(counters().pictures_captured - captured, 1u);
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(ZU_CAP_CaptureStop(capture.handle), ZU_OK);
        EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
        screen.thaw();
    }
    EXPECT_EQ(counters().display_lost, lost);
}

// Catches an exit, a signal, a spin or a hang when the X server dies in mid-capture.
TEST(CaptureScreen, SurvivesTheDisplay)
{
    VirtualScreen screen(320, 256);
    ASSERT_TRUE(screen.ready());
    Capture capture;
    ASSERT_EQ(capture.connect(), ZU_OK);
    ASSERT_EQ(capture.start(320, 256, 100), ZU_OK);
    capture.look([](const ZU_CAP_FrameInfo_t&) {});
    testing::internal::CaptureStderr();
    const std::string display = std::getenv("DISPLAY");
    const uint64_t before = counters().pictures_dropped_no_display;
    screen.kill_server();
    EXPECT_TRUE(capture.wait_until([&] { return counters().pictures_dropped_no_display > before + 5; }));
    EXPECT_EQ(counters().display_lost, 1u);
    const BlockOwner owner(4096);
    EXPECT_NE(capture.still(owner.block, E_ZU_CAP_FORMAT_BGRA, {16, 16}, 64, 4096), ZU_OK);
    EXPECT_EQ(ZU_CAP_CaptureStop(capture.handle), ZU_OK);
    capture.close();
    const std::string log = testing::internal::GetCapturedStderr();
    const size_t line = log.find("DISPLAY=\"" + display + "\" went away");
    ASSERT_NE(line, std::string::npos) << log;
    EXPECT_EQ(log.find("went away", line + 40), std::string::npos) << "said more than once";
}
