#include <cstdio>
#include <cstdlib>

#include "middleware/state.h"

namespace middleware {

namespace {

/** What the thread of a task, or the test's own, does between the task's start and its end. */
void run_entry(s32 id)
{
    State& s = state();
    Lock lock(s.mutex);
    Task& task = s.tasks.at(id);
    task.runner = std::this_thread::get_id();
    const ZU_OS_TaskEntry entry = task.entry;
    void* const argument = task.argument;
    lock.unlock();
    entry(argument);
    lock.lock();
    for (const auto& [mutex_id, mutex] : s.mutexes) {
        if (mutex.held && mutex.owner == task.runner && task_thread)
            problem(text("task ", task.name, " ended while it held mutex ", mutex.name));
    }
    task.state = TaskState::finished;
    task.runner = {};
    for (Waiter* const joiner : task.joiners)
        wake(*joiner);
    let_time_pass();
}

void start(s32 id, Task& task)
{
    task.state = TaskState::running;
    task.thread = std::thread([id] {
        task_thread = true;
        run_entry(id);
    });
}

/** A stack that is not live memory of the size given is found here by AddressSanitizer, or by a crash. */
void touch_stack(const ZU_OS_TaskAttr_t& attributes)
{
    if (!attributes.pStack || attributes.u32StackSize == 0) {
        problem(text("task ", attributes.pName, " is created without a stack"));
        return;
    }
    volatile u8* const stack = static_cast<volatile u8*>(attributes.pStack);
    stack[0] = 0;
    stack[attributes.u32StackSize - 1] = 0;
}

u32 create(Context& context, const ZU_OS_TaskAttr_t& attributes, s32* id)
{
    State& s = state();
    touch_stack(attributes);
    *id = s.next_task++;
    context.note = text("t", *id);
    Task& task = s.tasks[*id];
    task.name = attributes.pName;
    task.entry = attributes.pfnEntry;
    task.argument = attributes.pArg;
    if (!s.tasks_held)
        start(*id, task);
    return ZU_OK;
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
        Waiter waiter{std::this_thread::get_id(), never, !task_thread};
        task.joiners.push_back(&waiter);
        wait(context.lock, waiter, "ZU_OS_DeleteTask of " + task.name);
        task.joiners.remove(&waiter);
        if (task.state == TaskState::running)
            return ZU_FAILURE;
    }
    std::thread thread = std::move(task.thread);
    s.tasks.erase(id);
    context.lock.unlock();
    if (thread.joinable())
        thread.join();
    context.lock.lock();
    return ZU_OK;
}

} // namespace

/** Between tests: a task that a failed test left must not run on into the next one. */
void end_all_tasks(Lock& lock)
{
    State& s = state();
    while (!s.tasks.empty()) {
        const auto task = s.tasks.begin();
        if (task->second.state == TaskState::running) {
            s.run_freely = true;
            let_time_pass();
            const auto ended = [&] { return task->second.state == TaskState::finished; };
            if (!s.changed.wait_for(lock, std::chrono::seconds(5), ended)) {
                std::fprintf(stderr, "Task %s runs on after its test; no further test can be trusted.\n",
                             task->second.name.c_str());
                std::abort();
            }
        }
        std::thread thread = std::move(task->second.thread);
        s.tasks.erase(task);
        lock.unlock();
        if (thread.joinable())
            thread.join();
        lock.lock();
    }
}

void Middleware::hold_tasks()
{
    const Lock lock(state().mutex);
    state().tasks_held = true;
}

void Middleware::run_tasks()
{
    const Lock lock(state().mutex);
    state().tasks_held = false;
}

} // namespace middleware

using namespace middleware;

extern "C" {

u32 ZU_OS_CreateTask(const ZU_OS_TaskAttr_t* attributes, s32* id)
{
    return call("ZU_OS_CreateTask",
                text("name=", attributes->pName, " priority=", attributes->u32Priority,
                     " stack=", attributes->u32StackSize, " start=", attributes->bAutoStart),
                [&](Context& context) { return create(context, *attributes, id); });
}

u32 ZU_OS_DeleteTask(s32 id)
{
    return ending_call("ZU_OS_DeleteTask", text("t", id),
                       [&](Context& context) { return remove(context, id); });
}
}
