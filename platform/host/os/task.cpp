#include "os/task.h"

#include "base/border.h"
#include "base/threads.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <sys/eventfd.h>

namespace zu3host {

namespace {

// The device's blocks of 4 KiB are less than what Linux itself lays on a thread's stack. The usual
// 8 MiB would count in full wherever address space or locked memory is limited.
constexpr size_t least_stack_bytes = 256 * 1024;

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

int Task::deletion_on_this_thread()
{
    return deletion_of_task;
}

bool Task::runs_on_this_thread() const
{
    const std::lock_guard lock(mutex_);
    return state_ == State::running && pthread_equal(thread_, pthread_self());
}

} // namespace zu3host
