#include "middleware/contract_call.h"
#include "utils/Timers.h"

namespace middleware {

thread_local u32 late_callback_depth = 0;
thread_local bool task_thread = false;

namespace {

constexpr s64 ns_per_ms = 1'000'000;

bool waits(std::thread::id thread)
{
    return std::ranges::any_of(state().waiters,
                               [&](const Waiter* w) { return w->thread == thread && !w->woken; });
}

/** Whether a task, a callback thread or the holder of a mutex runs or is about to. */
bool any_runs()
{
    const State& s = state();
    const auto runs =
        [](const auto& entry) { // a task that has not begun has no thread that could wait
            return entry.second.state == TaskState::running && !waits(entry.second.runner);
        };
    const auto holds = [](const auto& entry) {
        return entry.second.held() && !waits(entry.second.owner);
    };
    return std::ranges::any_of(s.tasks, runs) || std::ranges::any_of(s.mutexes, holds) ||
           !std::ranges::all_of(s.callback_threads, waits);
}

void delay(Lock& lock, s64 ms, bool client, const std::string& what)
{
    Waiter waiter{std::this_thread::get_id(), state().now_ns + ms * ns_per_ms, client};
    wait(lock, waiter, what);
}

void wait_until_idle(Lock& lock)
{
    if (!state().changed.wait_for(lock, real_patience, [] { return !any_runs(); }))
        problem("a task or callback thread neither ended nor waited");
}

bool leads_to(s32 from, s32 to, std::set<s32>& seen)
{
    if (from == to)
        return true;
    if (!seen.insert(from).second)
        return false;
    return std::ranges::any_of(state().lock_order[from],
                               [&](s32 id) { return leads_to(id, to, seen); });
}

/** Notes that the calling thread waits for `wanted` while it holds others. */
void note_order(s32 wanted)
{
    State& s = state();
    for (const auto& [id, mutex] : s.mutexes) {
        if (id == wanted || mutex.owner != std::this_thread::get_id())
            continue;
        std::set<s32> seen;
        if (leads_to(wanted, id, seen) && !s.lock_order[id].contains(wanted))
            problem(text("mutexes ", mutex.name, " and ", s.mutexes[wanted].name,
                         " are obtained in both orders"));
        s.lock_order[id].insert(wanted);
    }
}

Mutex* live_mutex(s32 id, const char* function)
{
    const auto found = state().mutexes.find(id);
    if (found != state().mutexes.end())
        return &found->second;
    if (late_callback_depth == 0)
        problem(text(function, " is called on unknown or deleted mutex ", id));
    return nullptr;
}

u32 obtain(Context& context, s32 id, u32 timeout_ms)
{
    Mutex* const mutex = live_mutex(id, "ZU_OS_ObtainMutex");
    if (!mutex)
        return ZU_INVALID_ARGUMENT;
    const std::thread::id self = std::this_thread::get_id();
    note_order(id);
    if (!mutex->held()) {
        mutex->owner = self;
        return ZU_OK;
    }
    if (mutex->owner == self)
        problem(text("mutex ", mutex->name, " is waited for by the thread that holds it"));
    Waiter waiter{self, state().now_ns + s64{timeout_ms} * ns_per_ms, !task_thread};
    mutex->queue.push_back(&waiter);
    wait(context.lock, waiter, "ZU_OS_ObtainMutex");
    if (const auto still = state().mutexes.find(id); still != state().mutexes.end())
        still->second.queue.remove(&waiter);
    return waiter.expired ? ZU_FAILURE : ZU_OK;
}

u32 release(s32 id)
{
    Mutex* const mutex = live_mutex(id, "ZU_OS_ReleaseMutex");
    if (!mutex)
        return ZU_INVALID_ARGUMENT;
    if (mutex->owner != std::this_thread::get_id()) {
        problem(text("mutex ", mutex->name, " is released by a thread that does not hold it"));
        return ZU_FAILURE;
    }
    // Handed to the longest waiter, so that no thread overtakes another.
    mutex->owner = {};
    std::erase_if(mutex->queue, [](const Waiter* waiter) { return waiter->woken; });
    if (!mutex->queue.empty()) {
        mutex->owner = mutex->queue.front()->thread;
        wake(*mutex->queue.front());
    }
    let_time_pass();
    return ZU_OK;
}

u32 delete_mutex(s32 id)
{
    Mutex* const mutex = live_mutex(id, "ZU_OS_DeleteMutex");
    if (!mutex)
        return ZU_INVALID_ARGUMENT;
    if (mutex->held())
        problem(text("mutex ", mutex->name, " is deleted while it is held"));
    for (Waiter* const waiter : mutex->queue) {
        if (waiter->woken)
            continue;
        problem(text("mutex ", mutex->name, " is deleted while a thread waits for it"));
        waiter->expired = true;
        wake(*waiter);
    }
    state().mutexes.erase(id);
    let_time_pass();
    return ZU_OK;
}

} // namespace

void wake(Waiter& waiter)
{
    waiter.woken = true;
    state().changed.notify_all();
}

void let_time_pass()
{
    State& s = state();
    // for threads that wait until all wait
    s.changed.notify_all();
    const auto is_client = [](const Waiter* waiter) { return waiter->client && !waiter->woken; };
    if (any_runs() || !(s.run_freely || std::ranges::any_of(s.waiters, is_client)))
        return;
    s64 earliest = never;
    for (const Waiter* waiter : s.waiters)
        earliest = waiter->woken ? earliest : std::min(earliest, waiter->deadline_ns);
    if (earliest == never)
        return;
    s.now_ns = std::max(s.now_ns, earliest);
    for (Waiter* waiter : s.waiters) {
        if (!waiter->woken && waiter->deadline_ns <= s.now_ns) {
            waiter->expired = true;
            wake(*waiter);
        }
    }
}

void wait(Lock& lock, Waiter& waiter, const std::string& what)
{
    State& s = state();
    s.waiters.push_back(&waiter);
    let_time_pass();
    if (!s.changed.wait_for(lock, real_patience, [&] { return waiter.woken; })) {
        problem(text(what, " waited for a minute of real time: no thread can go on"));
        waiter.expired = true;
        waiter.woken = true;
    }
    s.waiters.remove(&waiter);
}

void Gate::wait()
{
    Lock lock(state().mutex);
    arrived_ = true;
    if (open_)
        return;
    Waiter waiter{std::this_thread::get_id(), never, false};
    waiters_.push_back(&waiter);
    middleware::wait(lock, waiter, "a gate");
    waiters_.remove(&waiter);
}

bool Gate::wait_for_arrival()
{
    Lock lock(state().mutex);
    return state().changed.wait_for(lock, real_patience, [&] { return arrived_; });
}

void Gate::open()
{
    const Lock lock(state().mutex);
    open_ = true;
    for (Waiter* const waiter : waiters_)
        wake(*waiter);
}

void Middleware::advance(s64 ms)
{
    Lock lock(state().mutex);
    delay(lock, ms, true, "advance");
    wait_until_idle(lock);
}

void Middleware::run_freely(bool on)
{
    const Lock lock(state().mutex);
    state().run_freely = on;
    let_time_pass();
}

} // namespace middleware

using namespace middleware;

extern "C" {

u32 ZU_OS_CreateMutex(const ZU_OS_MutexAttr_t* attributes, s32* id)
{
    return call(__func__, text("name=", attributes->pName), [&](Context& context) {
        // from 0 on, which is a good id
        store_output(id, state().next_mutex++);
        state().mutexes[*id].name = attributes->pName;
        context.note = text("m", *id);
        return ZU_OK;
    });
}

u32 ZU_OS_ObtainMutex(s32 id, u32 timeout_ms)
{
    return call(__func__, text("m", id, ", ", timeout_ms),
                [&](Context& context) { return obtain(context, id, timeout_ms); });
}

u32 ZU_OS_ReleaseMutex(s32 id)
{
    return ending_call(__func__, text("m", id), [&](Context&) { return release(id); });
}

u32 ZU_OS_DeleteMutex(s32 id)
{
    return ending_call(__func__, text("m", id), [&](Context&) { return delete_mutex(id); });
}

u32 ZU_OS_DelayTask(u32 ms)
{
    return call(__func__, text(ms), [&](Context& context) {
        delay(context.lock, ms, !task_thread, "ZU_OS_DelayTask");
        return ZU_OK;
    });
}

u32 ZU_OS_GetSystemTime(u32* start_ms)
{
    return call(__func__, "", [&](Context&) {
        *start_ms = static_cast<u32>(state().now_ns / ns_per_ms);
        return ZU_OK;
    });
}

u32 ZU_OS_TimerDiffTimeFromNow(u32 start_ms, u32* elapsed_ms)
{
    return call(__func__, "", [&](Context&) {
        *elapsed_ms = static_cast<u32>(state().now_ns / ns_per_ms) - start_ms;
        return ZU_OK;
    });
}

nsecs_t systemTime(int clock)
{
    return call(__func__, text(clock), [](Context&) { return state().now_ns; });
}
}
