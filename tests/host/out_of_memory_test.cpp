// Calls with every allocation failing in turn, and the host layer's threads without memory.
#include "encoder_fixture.h"
#include "multiplexer/aac_encoder.h"
#include "multiplexer_fixture.h"
#include "picture/picture_in_flight.h"
#include "srglworker/SrGlWorker.h"

#include <zu3/acap.h>
#include <zu3/cap.h>
#include <zu3/disp.h>
#include <zu3/fs.h>
#include <zu3/os.h>
#include <zu3/sys.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <new>
#include <unistd.h>

namespace {

/** How many more of this thread's allocations succeed. */
thread_local int allocations_left = INT_MAX;
thread_local bool is_tests_own = false;
std::atomic<bool> others_get_none{false};

bool is_to_fail()
{
    return (allocations_left != INT_MAX && allocations_left-- <= 0) ||
           (others_get_none && !is_tests_own);
}

} // namespace

// Not inlined: a compiler that sees both would miss the delete for a new in the free.
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    return is_to_fail() ? nullptr : std::malloc(size);
}

[[gnu::noinline]] void* operator new(size_t size)
{
    if (void* const memory = operator new(size, std::nothrow))
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}

using namespace zu3host;

namespace {

const std::string path = testing::TempDir() + "a file with a name that takes memory";

bool make_mutex()
{
    const ZU_OS_MutexAttr_t attributes{};
    s32 id = -1;
    return ZU_OS_CreateMutex(&attributes, &id) == ZU_OK && ZU_OS_DeleteMutex(id) == ZU_OK;
}

bool run_task()
{
    const ZU_OS_TaskAttr_t attributes{[](void*) {}, nullptr, 4, 1, {}, nullptr, 4096, "test"};
    s32 id = -1;
    return ZU_OS_CreateTask(&attributes, &id) == ZU_OK && ZU_OS_DeleteTask(id) == ZU_OK;
}

bool write_and_read_file()
{
    u32 file = ZU_FS_Fopen(path.c_str(), "w+b");
    char byte = 'a';
    return file != 0 && ZU_FS_Fwrite(&byte, 1, 1, file) == 1 && ZU_FS_Fseek(file, 0, 0) == ZU_OK &&
           ZU_FS_Fread(&byte, 1, 1, file) == 1 && ZU_FS_Fclose(file) == ZU_OK;
}

bool share_memory()
{
    ZU_OS_IommuAlloc_t block{};
    block.u32Size = 4096;
    if (ZU_OS_AllocateIommuMemory(&block) != ZU_OK)
        return false;
    ZU_OS_IommuBufFd_t shared{block.u64PhyAddr, -1, 0};
    const bool got = ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_GET_BUFFD, &shared) == ZU_OK;
    if (got) {
        EXPECT_EQ(ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_PUT_BUFFD, &shared), ZU_OK);
    }
    const ZU_OS_IommuFree_t freed{block.u64PhyAddr, block.u32Size, 0};
    EXPECT_EQ(ZU_OS_FreeIommuMemory(&freed), ZU_OK);
    return got;
}

bool ask_for_layout()
{
    ZU_SYS_MmapLayout_t layout{};
    return ZU_SYS_GetMmapLayout(ZU_SYS_MMAP_ID_TSMUX_OUTPUT, &layout) == ZU_OK;
}

bool open_encoder()
{
    const auto params = params_of(64, 64, E_ZU_VENC_COLOR_INJECT);
    u32 handle = 0;
    if (ZU_VENC_Open(&params, &handle) != ZU_OK)
        return false;
    ZU_VENC_EntireInjectBuf_t region{};
    const u32 result = ZU_VENC_QueryEntireInjectBuffer(handle, &region);
    EXPECT_EQ(ZU_VENC_Close(handle), ZU_OK);
    return result == ZU_OK;
}

bool watermark()
{
    struct Memory final : android::IMemory {
        void* pointer() const override { return const_cast<uint8_t*>(pixels); }
        size_t size() const override { return sizeof pixels; }
        uint8_t pixels[4 * 4 * 4] = {};
    };
    static const auto params = [] {
        android::sp made = new android::WatermarkParams;
        made->spMemory = new Memory;
        made->u32Width = made->u32Height = 4;
        made->u32Opacity = 255;
        return made;
    }();
    const auto worker = android::vexa_screenrecord::SrGlWorker::newWorker();
    return worker && worker->setWatermark(params) == 0;
}

bool with_so_many(int allocations, const std::function<bool()>& call)
{
    struct Again {
        ~Again() { allocations_left = INT_MAX; }
    } again;
    allocations_left = allocations;
    return call();
}

ptrdiff_t open_descriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

struct Case {
    const char* what;
    std::function<bool()> call;
};

/** Repeats each call with one allocation more until it succeeds; it has to fail at least once. */
void try_with_ever_more(const std::vector<Case>& cases)
{
    for (const Case& each : cases) {
        SCOPED_TRACE(each.what);
        bool done = false;
        int allocations = 0;
        for (; !done && allocations < 100; ++allocations)
            EXPECT_NO_THROW(done = with_so_many(allocations, each.call));
        EXPECT_TRUE(done && allocations > 1) << allocations;
    }
}

// Catches an exception that reaches the caller, and a descriptor or block that is left behind.
TEST(OutOfMemory, IsAnswered)
{
    // makes what it shows
    watermark();
    // makes the event that gives up writes, which stays
    write_and_read_file();
    const ptrdiff_t before = open_descriptors();
    try_with_ever_more({{"mutex", make_mutex},
                        {"task", run_task},
                        {"file", write_and_read_file},
                        {"memory", share_memory},
                        {"encoder", open_encoder},
                        {"watermark", watermark}});
    EXPECT_EQ(open_descriptors(), before);
    try_with_ever_more({{"layout", ask_for_layout}});
}

u32 give_back(s32 handle, u32, ZU_CAP_FrameInfo_t* frame, void*)
{
    return ZU_CAP_ProcessBufDone(static_cast<u32>(handle), frame->u32BufIndex);
}

/** A capture of the test card. */
struct Capture {
    Capture()
    {
        setenv("ZU3_DISPLAY", "testcard", 1);
        const ZU_CAP_OpenParams_t none{};
        const ZU_CAP_CallbackParams_t callback{0, give_back, 1, nullptr, 0};
        u64 id = 0;
        EXPECT_EQ(ZU_CAP_Open(&none, &handle), ZU_OK);
        EXPECT_EQ(ZU_CAP_RegisterCallback(handle, &callback, &id), ZU_OK);
        output.u32OutWidth = output.u32OutHeight = 64;
        output.eOutFormat = E_ZU_CAP_FORMAT_NV12;
        output.u64PhyAddr = still.phys;
        output.u32OutSize = still.size;
    }
    ~Capture() { EXPECT_EQ(ZU_CAP_Close(handle), ZU_OK); }
    bool connect()
    {
        char name[64] = "ZU_DISP_HD0";
        const ZU_DISP_GetHandleParams_t main{name};
        const ZU_CAP_ConnectParams_t none{};
        u32 display = 0;
        return ZU_DISP_GetHandle(&main, &display) == ZU_OK &&
               ZU_CAP_ConnectInput(handle, display, &none) == ZU_OK;
    }
    bool shoot()
    {
        ZU_CAP_FrameInfo_t frame{};
        return ZU_CAP_CaptureOne(handle, &params, &frame) == ZU_OK &&
               ZU_CAP_ProcessBufDone(handle, frame.u32BufIndex) == ZU_OK;
    }
    bool start()
    {
        output.u32OutFrameRate = 100;
        return ZU_CAP_CaptureStart(handle, &params) == ZU_OK;
    }

    const DeviceBlock still{64 * 64 * 2};
    ZU_CAP_CaptureParams_t params{};
    ZU_CAP_Output_t& output = params.stOutput;
    u32 handle = 0;
};

/** An audio capture by the source that `setting` names. */
struct Sound {
    explicit Sound(const char* setting)
    {
        setenv("ZU3_AUDIO", setting, 1);
        const ZU_ACAP_OpenParams_t params{"acap_s", 0};
        EXPECT_EQ(ZU_ACAP_Open(&params, &handle), ZU_OK);
    }
    ~Sound() { EXPECT_EQ(ZU_ACAP_Close(handle), ZU_OK); }
    bool start()
    {
        const ZU_ACAP_StartParams_t params{};
        return ZU_ACAP_Start(handle, &params) == ZU_OK;
    }
    u32 handle = 0;
};

// Catches a call that ends the process or fails half-way: repeated on its object it must succeed.
TEST(OutOfMemory, LeavesWhatIsOpenUsable)
{
    Capture capture;
    Sound sound("tone");
    TestEncoder encoder(params_of(64, 64, E_ZU_VENC_COLOR_INJECT));
    encoder.start();
    uint8_t* picture = nullptr;
    Recording stream({.rate = 2'000'000, .pictures = false});
    const ZU_TSMUX_CallbackParams_t callback{0, [](s32, u32, void*, void*) { return u32{0}; }, 3,
                                             nullptr, 0};
    u64 id = 0;
    EXPECT_TRUE(with_so_many(0, [&] {
        return stream.attach(E_ZU_TSMUX_STREAM_VIDEO_H264, picture_pid, 0xe0,
                             &stream.pictures_id) == ZU_OK;
    }));
    // The libraries of its module end the process if they get no memory while they are loaded.
    EXPECT_TRUE(AacEncoder::open());
    for (size_t leases = 0; leases < 64; ++leases)
        // so many have their place from the beginning
        lease_picture(nullptr);
    try_with_ever_more(
        {{"connection", [&] { return capture.connect(); }},
         {"still picture", [&] { return capture.shoot(); }},
         {"capture's start", [&] { return capture.start(); }},
         {"sound's start", [&] { return sound.start(); }},
         {"inject buffer",
          [&] {
              ZU_VENC_EntireInjectBuf_t region{};
              const bool done = ZU_VENC_QueryEntireInjectBuffer(encoder.handle, &region) == ZU_OK;
              picture = reinterpret_cast<uint8_t*>(uintptr_t{region.u32VirtAddr});
              return done;
          }},
         {"injected picture", [&] { return encoder.inject(picture) == ZU_OK; }},
         {"source of sound",
          [&] {
              return stream.attach(E_ZU_TSMUX_STREAM_AUDIO_AAC, sound_pid, 0xc0, &id) == ZU_OK;
          }},
         {"multiplexer's callback",
          [&] { return ZU_TSMUX_RegisterCallback(stream.handle, &callback, &id) == ZU_OK; }},
         {"multiplexer's start", [&] { return stream.start() == ZU_OK; }}});
    for (size_t leases = 0; leases < 64; ++leases)
        return_picture(nullptr);
    EXPECT_TRUE(encoder.receiver.wait_for_frames(1));
    const Bytes unit = UnitMaker().make(true, 1000);
    EXPECT_TRUE(with_so_many(0, [&] { return stream.push(unit, no_pts) == ZU_OK; }));
}

// Catches a thread that ends the process, and one that never works again.
TEST(OutOfMemory, EndsNoThread)
{
    setenv("PULSE_SERVER", "unix:/nonexistent", 1);
    is_tests_own = true;
    Capture capture;
    Sound sound("pulse");
    // its callback keeps each frame, which takes memory
    TestEncoder encoder(params_of(64, 64));
    encoder.start();
    ASSERT_TRUE(capture.connect());
    const Counters& all = counters();
    const uint64_t dropped = all.pictures_dropped_no_buffer, captured = all.pictures_captured,
                   encoded = all.pictures_encoded;
    others_get_none = true;
    EXPECT_TRUE(capture.start() && sound.start());
    // A film, so the first one is lost: there is no memory for another x264.
    EXPECT_EQ(encoder.feed(0), ZU_OK);
    EXPECT_EQ(encoder.feed(1), ZU_OK);
    EXPECT_TRUE(wait_until([&] { return all.pictures_dropped_no_buffer > dropped + 2; }));
    EXPECT_TRUE(wait_until([&] { return all.pictures_encoded > encoded; }));
    others_get_none = false;
    EXPECT_TRUE(wait_until([&] { return all.pictures_captured > captured; }));
    EXPECT_EQ(encoder.feed(2), ZU_OK);
    EXPECT_TRUE(encoder.receiver.wait_for_frames(1));
}

} // namespace
