#pragma once

namespace zu3host {

/**
 * On the thread of a task of the contract: a descriptor that is readable from the task's deletion
 * on, for a wait that the deletion must end. -1 on any other thread.
 */
int deletion_on_this_thread();

} // namespace zu3host
