#include "base/handle_table.h"
#include "base/threads.h"
#include "os/task_deletion.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <common/descriptor.h>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <sys/eventfd.h>
#include <zu3/os.h>

namespace zu3host {

/** A task as a thread. Made through start(); ended by exactly one call of stop(). */
class Task : public std::enable_shared_from_this<Task> {
public:
    using Entry = void (*)(void*);
    enum class End {
        /** nothing of the task runs any more */
        finished,
        /** the entry did not return within the limit; the thread is left running */
        still_running,
    };

    Task(const char* name, Entry entry, void* argument)
        : name_(thread_name(name)), entry_(entry), argument_(argument)
    {
    }

    /** Starts the thread with a stack of at least `stack_bytes`; an errno, 0 = started. */
    int start(size_t stack_bytes);
    /**
     * Keeps an entry that has not begun from ever running, and waits up to `limit` for one that
     * runs. Ends the waits of its thread for deletion_on_this_thread().
     */
    End stop(std::chrono::milliseconds limit);

    bool runs_on_this_thread() const;
    const char* name() const { return name_.data(); }

private:
    enum class State { created, running, returned, cancelled };

    static void* run_thread(void* kept_task);
    void run();
    bool may_begin();

    const ThreadName name_;
    const Entry entry_;
    void* const argument_;
    mutable std::mutex mutex_;
    std::condition_variable returned_;
    State state_ = State::created;
    pthread_t thread_{};
    // an event
    common::Descriptor deletion_;
};

namespace {

// The device's blocks of 4 KiB are less than what Linux itself lays on a thread's stack. The usual
// 8 MiB would count in full if address space or locked memory is limited.
constexpr size_t least_stack_bytes = size_t{256} * 1024;

thread_local int deletion_of_task = -1;

class ThreadAttributes {
public:
    explicit ThreadAttributes(size_t stack_bytes)
    {
        pthread_attr_init(&attributes_);
        pthread_attr_setstacksize(&attributes_, std::max(stack_bytes, least_stack_bytes));
    }
    ~ThreadAttributes() { pthread_attr_destroy(&attributes_); }
    ThreadAttributes(const ThreadAttributes&) = delete;
    ThreadAttributes& operator=(const ThreadAttributes&) = delete;
    const pthread_attr_t* get() const { return &attributes_; }

private:
    pthread_attr_t attributes_;
};

} // namespace

int Task::start(size_t stack_bytes)
{
    const ThreadAttributes attributes(stack_bytes);
    const ThreadInheritance guard;
    const auto itself = new (std::nothrow) std::shared_ptr<Task>(shared_from_this());
    std::unique_ptr<std::shared_ptr<Task>> kept(itself);
    if (!kept)
        return ENOMEM;
    // Held until the thread's handle is stored, so that neither the thread nor a stop sees the task
    // without it.
    const std::lock_guard lock(mutex_);
    deletion_ = common::Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!deletion_)
        return errno;
    const int error = pthread_create(&thread_, attributes.get(), run_thread, kept.get());
    if (error == 0)
        // the thread's from here on
        static_cast<void>(kept.release());
    return error;
}

void* Task::run_thread(void* kept_task)
{
    const std::unique_ptr<std::shared_ptr<Task>> kept(
        static_cast<std::shared_ptr<Task>*>(kept_task));
    (*kept)->run();
    return nullptr;
}

void Task::run()
{
    name_this_thread(name_);
    if (!may_begin())
        return;
    at_border(name_.data(), false, [this] { return entry_(argument_), true; });
    const std::lock_guard lock(mutex_);
    state_ = State::returned;
    returned_.notify_all();
}

bool Task::may_begin()
{
    const std::lock_guard lock(mutex_);
    if (state_ == State::cancelled)
        return false;
    state_ = State::running;
    deletion_of_task = deletion_.get();
    return true;
}

Task::End Task::stop(std::chrono::milliseconds limit)
{
    std::unique_lock lock(mutex_);
    if (state_ == State::created)
        state_ = State::cancelled;
    eventfd_write(deletion_.get(), 1);
    const bool ends =
        wait_patiently(returned_, lock, limit, [this] { return state_ != State::running; });
    lock.unlock();
    if (ends)
        pthread_join(thread_, nullptr);
    else
        pthread_detach(thread_);
    return ends ? End::finished : End::still_running;
}

int deletion_on_this_thread()
{
    return deletion_of_task;
}

bool Task::runs_on_this_thread() const
{
    const std::lock_guard lock(mutex_);
    return state_ == State::running && pthread_equal(thread_, pthread_self());
}

} // namespace zu3host

namespace {

using zu3host::at_border;
using zu3host::handle_table;
using zu3host::Task;

// Longest wait of a deletion for an entry that still runs; callers ask it to end long before.
constexpr std::chrono::milliseconds deletion_limit{2000};

// A stack size beyond this is a mistake and not a wish.
constexpr u32 greatest_stack_bytes = 64u << 20;

constexpr auto tasks = handle_table<Task, 1>;

bool is_complete(const ZU_OS_TaskAttr_t& attributes)
{
    // A task that is not runnable at once would never run, since no call starts it later.
    return attributes.pfnEntry && attributes.bAutoStart == 1 &&
           attributes.u32StackSize <= greatest_stack_bytes;
}

u32 create_task(const ZU_OS_TaskAttr_t& attributes, s32& task_id)
{
    const auto task =
        std::make_shared<Task>(attributes.pName, attributes.pfnEntry, attributes.pArg);
    const u32 id = tasks().add(task);
    // Written before the thread exists, since the task may read it.
    zu3host::store_output(&task_id, static_cast<s32>(id));
    const int error = task->start(attributes.u32StackSize);
    if (error == 0)
        return ZU_OK;
    tasks().remove(id);
    zu3host::store_output(&task_id, s32{-1});
    HOST_LOGE("No thread for task \"%s\": %s.", task->name(), strerror(error));
    return ZU_FAILURE;
}

u32 delete_task(s32 task_id)
{
    const auto found = tasks().find(static_cast<u32>(task_id));
    if (found && found->runs_on_this_thread()) {
        HOST_LOGE("Task \"%s\" tried to delete itself; another thread has to.", found->name());
        return ZU_FAILURE;
    }
    // Of two simultaneous deletions, one removes the task and ends it.
    const auto task = tasks().remove(static_cast<u32>(task_id));
    if (!task)
        return ZU_INVALID_ARGUMENT;
    if (task->stop(deletion_limit) == Task::End::finished)
        return ZU_OK;
    HOST_LOGE("Task \"%s\" still ran %lld ms after its deletion and is left running.", task->name(),
              static_cast<long long>(deletion_limit.count()));
    return ZU_FAILURE;
}

} // namespace

HOST_EXPORT u32 ZU_OS_CreateTask(const ZU_OS_TaskAttr_t* pstAttr, s32* ps32TaskId)
{
    if (!pstAttr || !ps32TaskId || !is_complete(*pstAttr))
        return ZU_INVALID_ARGUMENT;
    return at_border(__func__, [=] { return create_task(*pstAttr, *ps32TaskId); });
}

HOST_EXPORT u32 ZU_OS_DeleteTask(s32 s32TaskId)
{
    return at_border(__func__, [=] { return delete_task(s32TaskId); });
}
