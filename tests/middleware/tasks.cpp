#include <cstdio>
#include <cstdlib>

#include "middleware/contract_call.h"

namespace middleware {

namespace {

void run_task(s32 id)
{
    task_thread = true;
    State& s = state();
    Lock lock(s.mutex);
    Task& task = s.tasks.at(id);
    task.runner = std::this_thread::get_id();
    lock.unlock();
    task.entry(task.argument);
    lock.lock();
    for (const auto& [mutex_id, mutex] : s.mutexes)
        if (mutex.owner == task.runner)
            problem(text("task ", task.name, " ended while it held mutex ", mutex.name));
    task.state = TaskState::finished;
    task.runner = {};
    for (Waiter* const joiner : task.joiners)
        wake(*joiner);
    let_time_pass();
}

u32 create(Context& context, const ZU_OS_TaskAttr_t& attributes, s32* id)
{
    State& s = state();
    if (attributes.pStack && attributes.u32StackSize != 0)
        // AddressSanitizer or a crash finds a stack that is not live memory of this size.
        for (const u32 place : {u32{0}, attributes.u32StackSize - 1})
            static_cast<volatile u8*>(attributes.pStack)[place] = 0;
    else
        problem(text("task ", attributes.pName, " is created without a stack"));
    store_output(id, s.next_task++);
    context.note = text("t", *id);
    Task& task = s.tasks[*id];
    task.name = attributes.pName;
    task.entry = attributes.pfnEntry;
    task.argument = attributes.pArg;
    if (s.tasks_held)
        return ZU_OK;
    task.state = TaskState::running;
    task.thread = std::thread(run_task, *id);
    return ZU_OK;
}

/** Forgets a task that does not run. */
void end(Lock& lock, s32 id)
{
    std::thread thread = std::move(state().tasks.at(id).thread);
    state().tasks.erase(id);
    lock.unlock();
    if (thread.joinable())
        thread.join();
    lock.lock();
}

u32 remove(Context& context, s32 id)
{
    State& s = state();
    const auto found = s.tasks.find(id);
    if (found == s.tasks.end()) {
        problem(text("ZU_OS_DeleteTask is called on unknown or deleted task ", id));
        return ZU_INVALID_ARGUMENT;
    }
    Task& task = found->second;
    if (task.state == TaskState::running && task.runner == std::this_thread::get_id()) {
        problem(text("task ", task.name, " deletes itself"));
        return ZU_FAILURE;
    }
    if (task.state == TaskState::running) {
        const std::optional<s64> limit = Middleware::instance().settings.deletion_ms;
        const s64 deadline = limit ? s.now_ns + *limit * 1'000'000 : never;
        Waiter waiter{std::this_thread::get_id(), deadline, !task_thread};
        task.joiners.push_back(&waiter);
        wait(context.lock, waiter, "ZU_OS_DeleteTask of " + task.name);
        task.joiners.remove(&waiter);
        if (task.state == TaskState::running)
            return ZU_FAILURE;
    }
    end(context.lock, id);
    return ZU_OK;
}

} // namespace

/** Between tests: a task that a failed test left must not run on into the next one. */
void end_all_tasks(Lock& lock)
{
    State& s = state();
    while (!s.tasks.empty()) {
        const auto& [id, task] = *s.tasks.begin();
        s.run_freely = true;
        let_time_pass();
        if (!s.changed.wait_for(lock, std::chrono::seconds(5),
                                [&task = task] { return task.state != TaskState::running; })) {
            std::fprintf(stderr,
                         "Task %s runs on after its test; no further test can be trusted.\n",
                         task.name.c_str());
            std::abort();
        }
        end(lock, id);
    }
}

} // namespace middleware

using namespace middleware;

extern "C" {

u32 ZU_OS_CreateTask(const ZU_OS_TaskAttr_t* attributes, s32* id)
{
    return call(__func__,
                text("name=", attributes->pName, " priority=", attributes->u32Priority,
                     " stack=", attributes->u32StackSize, " start=", attributes->bAutoStart),
                [&](Context& context) { return create(context, *attributes, id); });
}

u32 ZU_OS_DeleteTask(s32 id)
{
    return ending_call(__func__, text("t", id),
                       [&](Context& context) { return remove(context, id); });
}
}
