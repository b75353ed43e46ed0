#include "base/threads.h"

#include <zu3/os.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr u32 long_wait_ms = 20000;

s32 make_mutex()
{
    const ZU_OS_MutexAttr_t attributes{.pName = "test", .u32Reserved = 0};
    s32 id = -1;
    EXPECT_EQ(ZU_OS_CreateMutex(&attributes, &id), ZU_OK);
    return id;
}

/** A task that runs `body`, which outlives it. */
s32 make_task(const std::function<void()>& body, const char* name = "test")
{
    static char stack[4096];
    const auto entry = [](void* each) { (*static_cast<const std::function<void()>*>(each))(); };
    const ZU_OS_TaskAttr_t attributes{
        entry, const_cast<std::function<void()>*>(&body), 4, 1, {}, stack, sizeof stack, name};
    s32 id = -1;
    EXPECT_EQ(ZU_OS_CreateTask(&attributes, &id), ZU_OK);
    EXPECT_GE(id, 1);
    return id;
}

// Catches a mutex that lets two in, that all may release, that waits too long, and a reused id.
TEST(Mutex, BelongsToItsHolderUntilReleased)
{
    const s32 id = make_mutex();
    ASSERT_GE(id, 0);
    ASSERT_EQ(ZU_OS_ObtainMutex(id, 0), ZU_OK);
    EXPECT_NE(ZU_OS_ObtainMutex(id, 0), ZU_OK);
    std::thread([id] {
        EXPECT_NE(ZU_OS_ObtainMutex(id, 30), ZU_OK);
        EXPECT_NE(ZU_OS_ReleaseMutex(id), ZU_OK);
    }).join();
    auto waiter = std::async(std::launch::async, [id] {
        const u32 result = ZU_OS_ObtainMutex(id, long_wait_ms);
        return result == ZU_OK ? ZU_OS_ReleaseMutex(id) : result;
    });
    EXPECT_EQ(ZU_OS_ReleaseMutex(id), ZU_OK);
    EXPECT_EQ(waiter.get(), ZU_OK);
    EXPECT_NE(ZU_OS_ReleaseMutex(id), ZU_OK);
    EXPECT_EQ(ZU_OS_DeleteMutex(id), ZU_OK);
    EXPECT_NE(make_mutex(), id);
    for (const s32 gone : {id, s32{-1}, s32{1000000}}) {
        EXPECT_EQ(ZU_OS_ObtainMutex(gone, 0), ZU_INVALID_ARGUMENT);
        EXPECT_EQ(ZU_OS_ReleaseMutex(gone), ZU_INVALID_ARGUMENT);
        EXPECT_EQ(ZU_OS_DeleteMutex(gone), ZU_INVALID_ARGUMENT);
    }
}

// Catches a deletion that leaves waiters to run into their limit, or frees the mutex under them.
TEST(Mutex, DeletionWhileHeldWakesItsWaiters)
{
    const s32 id = make_mutex();
    ASSERT_EQ(ZU_OS_ObtainMutex(id, 0), ZU_OK);
    const auto start = std::chrono::steady_clock::now();
    auto wait = [id] { return ZU_OS_ObtainMutex(id, long_wait_ms); };
    auto first = std::async(std::launch::async, wait);
    auto second = std::async(std::launch::async, wait);
    // time for both to be waiting
    EXPECT_NE(ZU_OS_ObtainMutex(id, 100), ZU_OK);
    EXPECT_EQ(ZU_OS_DeleteMutex(id), ZU_OK);
    EXPECT_NE(first.get(), ZU_OK);
    EXPECT_NE(second.get(), ZU_OK);
    EXPECT_LT(std::chrono::steady_clock::now() - start,
              std::chrono::milliseconds(long_wait_ms / 2));
}

/** A condition variable of a process that is stopped during the first wait. */
struct StoppedDuringAWait {
    int waits = 0;
    template <typename Duration, typename Condition>
    bool wait_for(std::unique_lock<std::mutex>&, Duration limit, Condition condition)
    {
        if (++waits == 1)
            std::this_thread::sleep_for(limit + std::chrono::milliseconds(50));
        return condition();
    }
};

// Catches a limit that passes while the process is stopped, so that no thread has time to answer.
TEST(PatientWait, CountsAStopAsOneSlice)
{
    std::mutex mutex;
    std::unique_lock lock(mutex);
    StoppedDuringAWait changed;
    constexpr std::chrono::milliseconds limit(45);
    EXPECT_TRUE(zu3host::wait_patiently(changed, lock, limit, [&] { return changed.waits == 3; }));
    EXPECT_FALSE(zu3host::wait_patiently(changed, lock, limit, [] { return false; }));
    EXPECT_EQ(changed.waits, 6);
}

// Catches a stack of only the 4096 bytes given, a task that gets SIGINT, and a name Linux refuses.
TEST(Task, IsANamedThreadWithRoomThatLeavesSignalsToTheClient)
{
    char name[16] = {};
    sigset_t mask, own_mask;
    std::promise<void> done;
    const std::function<void()> body = [&] {
        volatile char room[100 * 1024];
        room[0] = 1;
        room[sizeof room - 1] = 1;
        pthread_getname_np(pthread_self(), name, sizeof name);
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        done.set_value();
    };
    const s32 id = make_task(body, "a name of more than fifteen");
    done.get_future().wait();
    EXPECT_EQ(ZU_OS_DeleteTask(id), ZU_OK);
    EXPECT_STREQ(name, "a name of more ");
    EXPECT_TRUE(sigismember(&mask, SIGINT) && sigismember(&mask, SIGTERM));
    EXPECT_FALSE(sigismember(&mask, SIGSEGV));
    EXPECT_EQ(ZU_OS_DeleteTask(id), ZU_INVALID_ARGUMENT);
    pthread_sigmask(SIG_SETMASK, nullptr, &own_mask);
    EXPECT_FALSE(sigismember(&own_mask, SIGINT)) << "the creator's own mask was changed";
}

// Catches an entry that runs on after its deletion, and deletions that let every entry begin first.
TEST(Task, RunsNothingAfterItsDeletion)
{
    std::async(std::launch::async, [] {
        // With one processor, only a preferred thread runs before its creator waits.
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        sched_setaffinity(0, sizeof one, &one);
        setpriority(PRIO_PROCESS, 0, 19);
        std::atomic<int> begun{0}, ended{0};
        const std::function<void()> body = [&] {
            ++begun;
            std::this_thread::yield();
            ++ended;
        };
        for (int i = 0; i < 300; ++i) {
            const s32 id = make_task(body);
            ASSERT_EQ(ZU_OS_DeleteTask(id), ZU_OK);
            const int begun_then = begun;
            ASSERT_EQ(ended, begun_then);
            std::this_thread::yield();
            ASSERT_EQ(begun, begun_then);
        }
        EXPECT_LT(begun, 300);
    }).get();
}

struct Held {
    std::promise<void> running, may_end, ended;
    const std::function<void()> body = [this] {
        running.set_value();
        may_end.get_future().wait();
        ended.set_value();
    };
};

// Catches a deletion that hangs on a task that never ends, or claims that it is gone.
TEST(Task, DeletionOfOneThatDoesNotEndFailsInBoundedTime)
{
    // outlives the task, which is never joined
    static Held& held = *new Held;
    const s32 id = make_task(held.body);
    held.running.get_future().wait();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ZU_OS_DeleteTask(id), ZU_FAILURE);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    held.may_end.set_value();
    held.ended.get_future().wait();
}

// Catches a media thread without its priority, one that overrides the user's, a preferred creator.
TEST(Task, IsPreferredIfTheSystemAllowsItAndItsUserDoes)
{
    const auto own_nice = [] { return getpriority(PRIO_PROCESS, 0); };
    const auto set_nice = [](int nice) { return setpriority(PRIO_PROCESS, 0, nice) == 0; };
    const auto give_up_root = [] {
        return syscall(SYS_setresuid, 65534, 65534, 65534) == 0;
        // of this thread
    };
    // of the whole test run
    const int own = own_nice();
    const bool preferable = own == 0 && std::async(std::launch::async, set_nice, -10).get();
    const bool root = geteuid() == 0;
    const struct {
        const char* creator;
        std::function<bool()> prepare;
        int own, task;
    } cases[] = {
        {"as it was started", [] { return true; }, own, preferable ? -10 : own},
        {"niced", [&] { return set_nice(19); }, 19, 19},
        {"not allowed to", [&] { return !root || give_up_root(); }, own,
         preferable && !root ? -10 : own},
    };
    for (const auto& each : cases)
        std::async(std::launch::async, [&] {
            SCOPED_TRACE(each.creator);
            ASSERT_TRUE(each.prepare());
            std::promise<int> nice;
            const std::function<void()> body = [&] { nice.set_value(own_nice()); };
            const s32 id = make_task(body);
            EXPECT_EQ(nice.get_future().get(), each.task);
            EXPECT_EQ(own_nice(), each.own);
            EXPECT_EQ(ZU_OS_DeleteTask(id), ZU_OK);
        }).get();
}

// Catches a task that waits for its own end.
TEST(Task, CannotDeleteItself)
{
    std::promise<s32> own_id;
    std::promise<u32> result;
    const std::function<void()> body = [&] {
        result.set_value(ZU_OS_DeleteTask(own_id.get_future().get()));
    };
    const s32 id = make_task(body);
    own_id.set_value(id);
    EXPECT_EQ(result.get_future().get(), ZU_FAILURE);
    EXPECT_EQ(ZU_OS_DeleteTask(id), ZU_OK);
}

// Catches a delay that is cut short, and a difference that does not wrap with the 32-bit clock.
TEST(SystemTime, MeasuresDelaysModulo32Bits)
{
    u32 start = 0, elapsed = 0;
    ASSERT_EQ(ZU_OS_GetSystemTime(&start), ZU_OK);
    EXPECT_EQ(ZU_OS_DelayTask(30), ZU_OK);
    ASSERT_EQ(ZU_OS_TimerDiffTimeFromNow(start, &elapsed), ZU_OK);
    EXPECT_GE(elapsed, 29u);
    EXPECT_LT(elapsed, 10000u);
    ASSERT_EQ(ZU_OS_TimerDiffTimeFromNow(start - 0x80000000u, &elapsed), ZU_OK);
    EXPECT_GE(elapsed, 0x80000000u);
    EXPECT_LT(elapsed, 0x80000000u + 10000u);
}

} // namespace
