#include "base/border.h"
#include "os/task.h"

#include <cstring>
#include <zu3/os.h>

namespace {

using zu3host::at_border;
using zu3host::HandleTable;
using zu3host::Task;

// How long a deletion waits for an entry that still runs; callers have told it to end long before.
constexpr std::chrono::milliseconds deletion_limit{2000};

// A stack size beyond this is a mistake and not a wish.
constexpr u32 greatest_stack_bytes = 64u << 20;

// Never destroyed: tasks may still run while the process exits.
HandleTable<Task>& tasks()
{
    static auto& all = *new HandleTable<Task>(1);
    return all;
}

bool is_complete(const ZU_OS_TaskAttr_t& attributes)
{
    // Nothing starts a task later on, so that one which is not runnable at once would never run.
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
    // Of two deletions at the same moment one takes the task out and ends it.
    const auto task = tasks().remove(static_cast<u32>(task_id));
    if (!task)
        return ZU_INVALID_ARGUMENT;
    if (task->stop(deletion_limit) == Task::End::finished)
        return ZU_OK;
    HOST_LOGE("Task \"%s\" still ran %lld ms after its deletion and is left to itself.",
              task->name(), static_cast<long long>(deletion_limit.count()));
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
