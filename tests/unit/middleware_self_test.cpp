// The double must find what it says it finds: a checker that is silent makes every other test worthless.
#include <atomic>

#include <screenrecord/screenrecord.h>

#include "android/log.h"
#include "middleware/allocation_failures.h"
#include "middleware/middleware.h"
#include "utils/Timers.h"

namespace {

using middleware::Gate;
using middleware::Middleware;
using middleware::MiddlewareTest;

s32 new_mutex(const char* name)
{
    const ZU_OS_MutexAttr_t attributes = {name, 0};
    s32 id = -1;
    EXPECT_EQ(ZU_OS_CreateMutex(&attributes, &id), 0u);
    return id;
}

u32 open_capture()
{
    const ZU_CAP_OpenParams_t params = {0};
    u32 handle = 0;
    ZU_CAP_Open(&params, &handle);
    return handle;
}

s32 new_task(const char* name, ZU_OS_TaskEntry entry, void* argument)
{
    static u8 stack[4096];
    const ZU_OS_TaskAttr_t attributes = {entry, argument, 4, 1, {}, stack, sizeof(stack), name};
    s32 id = -1;
    EXPECT_EQ(ZU_OS_CreateTask(&attributes, &id), 0u);
    return id;
}

/** Wrong uses that the ledger or the lock checker must name, and the words that it must name each with. */
struct Misuse {
    std::vector<const char*> words;
    void (*commit)(Middleware& mw);
};

const Misuse misuses[] = {
    {{"is closed while its callback is registered", "picture 5 was never given back",
      "ZU_CAP_Close is called on dead or wrong handle", "capture 0x12 is left open"},
     [](Middleware&) {
         const u32 handle = open_capture();
         const ZU_CAP_CallbackParams_t registration = {};
         const ZU_CAP_CaptureParams_t params = {};
         ZU_CAP_FrameInfo_t frame = {};
         u64 id = 0;
         ZU_CAP_RegisterCallback(handle, &registration, &id);
         ZU_CAP_CaptureOne(handle, &params, &frame);
         ZU_CAP_Close(handle);
         ZU_CAP_Close(handle);
         open_capture();
     }},
    {{"ZU_VENC_Stop is called on unknown handle 0x0", "file out.ts is left open",
      "descriptor 0 is given back but was not out", "IOMMU block 0x280000000 is left",
      "ZU_VENC is left initialised"},
     [](Middleware&) {
         const ZU_VENC_InitParams_t params = {};
         ZU_OS_IommuBufFd_t record = {};
         ZU_OS_IommuAlloc_t request = {"vdec_fb", 4096, 3, 0, {}, 0};
         ZU_VENC_Stop(0);
         ZU_FS_Fopen("out.ts", "wb");
         ZU_OS_IommuOperation(E_ZU_OS_IOMMU_OPERATION_TYPE_PUT_BUFFD, &record);
         ZU_OS_AllocateIommuMemory(&request);
         ZU_VENC_Init(&params);
     }},
    {{"task idle is left", "mutexes b and a are obtained in both orders"},
     [](Middleware& mw) {
         const s32 a = new_mutex("a"), b = new_mutex("b");
         for (const auto& [first, second] : {std::pair(a, b), std::pair(b, a)}) {
             ZU_OS_ObtainMutex(first, 5000);
             ZU_OS_ObtainMutex(second, 5000);
             ZU_OS_ReleaseMutex(second);
             ZU_OS_ReleaseMutex(first);
         }
         ZU_OS_DeleteMutex(a);
         ZU_OS_DeleteMutex(b);
         mw.hold_tasks();
         new_task("idle", nullptr, nullptr);
     }},
    {{"mutex m is waited for by the thread that holds it",
      "mutex m is released by a thread that does not hold it", "mutex m is deleted while it is held",
      "task t ended while it held mutex n"},
     [](Middleware&) {
         const s32 m = new_mutex("m");
         ZU_OS_ObtainMutex(m, 5000);
         EXPECT_NE(ZU_OS_ObtainMutex(m, 5000), 0u);
         std::thread([m] { ZU_OS_ReleaseMutex(m); }).join();
         ZU_OS_DeleteMutex(m);
         s32 n = new_mutex("n");
         const auto hold = [](void* id) { ZU_OS_ObtainMutex(*static_cast<s32*>(id), 5000); };
         ZU_OS_DeleteTask(new_task("t", hold, &n));
     }},
};

TEST_F(MiddlewareTest, EveryMisuseIsNamed)
{
    for (const Misuse& misuse : misuses) {
        misuse.commit(mw);
        const std::string problems = middleware::joined(mw.ledger_problems());
        for (const char* words : misuse.words)
            EXPECT_NE(problems.find(words), std::string::npos) << words << ", not among:\n" << problems;
        mw.reset();
    }
}

TEST_F(MiddlewareTest, TheScriptAnswersAtTheCallThatItNamesAndNowhereElse)
{
    mw.fail("ZU_CAP_Open", {.result = 7, .nth = 2});
    mw.inside("ZU_CAP_Close",
              [] { __android_log_print(6, "screenrecord", "[%s][%d]inside\n", "Close", __LINE__); });
    ZU_CAP_Close(open_capture());
    open_capture();
    ZU_CAP_Close(open_capture());
    EXPECT_CALLS(mw.take_calls(),
                 {"ZU_CAP_Open(path=0)=0 h=0x11", "ZU_CAP_Close(0x11)=0", "ZU_CAP_Open(path=0)=7",
                  "ZU_CAP_Open(path=0)=0 h=0x12", "ZU_CAP_Close(0x12)=0"});
    EXPECT_CALLS(mw.take_logs(), {"E [Close]inside"});
}

struct Ticker {
    std::atomic<bool> stop = false;
    std::atomic<int> passes = 0;
};

void tick(void* argument)
{
    Ticker& ticker = *static_cast<Ticker*>(argument);
    while (!ticker.stop) {
        ticker.passes++;
        ZU_OS_DelayTask(100);
    }
}

TEST_F(MiddlewareTest, ATaskRunsExactlyAsOftenAsVirtualTimeSays)
{
    Ticker ticker;
    const s32 id = new_task("ticker", tick, &ticker);
    mw.settle();
    EXPECT_EQ(ticker.passes, 1);
    const nsecs_t start = systemTime(SYSTEM_TIME_MONOTONIC);
    mw.advance(1000);
    EXPECT_EQ(ticker.passes, 11);
    EXPECT_EQ(systemTime(SYSTEM_TIME_MONOTONIC) - start, 1'000'000'000);
    ticker.stop = true;
    EXPECT_EQ(ZU_OS_DeleteTask(id), 0u); // the wait lets the last delay pass
}

TEST_F(MiddlewareTest, ATaskDeletedBeforeItsFirstRunNeverRuns)
{
    mw.hold_tasks();
    Ticker ticker;
    ZU_OS_DeleteTask(new_task("ticker", tick, &ticker));
    EXPECT_EQ(ticker.passes, 0);
}

TEST_F(MiddlewareTest, AMutexHeldByAStuckThreadTimesOutAndIsHandedOnOnceItIsFree)
{
    s32 m = new_mutex("m");
    Gate gate;
    mw.inside("ZU_FS_Sync", [&] { gate.wait(); });
    std::future<u32> stuck = mw.fire_on_thread([m] {
        ZU_OS_ObtainMutex(m, 5000);
        ZU_FS_Sync();
        return ZU_OS_ReleaseMutex(m);
    });
    ASSERT_TRUE(gate.wait_for_arrival());
    const s64 start = mw.now_ms();
    EXPECT_NE(ZU_OS_ObtainMutex(m, 5000), 0u);
    EXPECT_EQ(mw.now_ms() - start, 5000);
    gate.open();
    EXPECT_EQ(ZU_OS_ObtainMutex(m, 5000), 0u);
    EXPECT_EQ(mw.now_ms() - start, 5000);
    ZU_OS_ReleaseMutex(m);
    stuck.get();
    ZU_OS_DeleteMutex(m);
}

TEST_F(MiddlewareTest, AnAllocationOfTheLibraryFailsAndNobodyElses)
{
    u32 slot = 0;
    u8 name[] = "out.ts";
    ASSERT_EQ(SCREENRECORD_Init(), 1u);
    {
        const middleware::AllocationWindow window(1);
        EXPECT_NE(std::make_unique<char[]>(16), nullptr);
        EXPECT_EQ(window.count(), 0);
        EXPECT_EQ(SCREENRECORD_Open(&slot, name), 0u);
        EXPECT_TRUE(window.failed());
    }
    EXPECT_EQ(SCREENRECORD_Open(&slot, name), 1u);
    EXPECT_GT(middleware::library_allocations_left(), 0u); // the name
    EXPECT_EQ(SCREENRECORD_DeInit(), 1u);
}

} // namespace
