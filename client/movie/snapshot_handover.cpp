#include "movie/snapshot_handover.h"

#include <algorithm>
#include <cerrno>
#include <sys/mman.h>

#include "process/messages.h"

namespace client::movie {

/** In shared memory, with the numbers of the blocks behind it. */
struct SnapshotHandover::Description {
    uint64_t begin;
    uint64_t end;
    uint64_t first_frame;
    uint64_t blocks;

    uint32_t* numbers() { return reinterpret_cast<uint32_t*>(this + 1); }
};

void SnapshotHandover::Unmap::operator()(Description* description) const
{
    munmap(description, bytes);
}

SnapshotHandover::SnapshotHandover(const ReplayBuffer& buffer) : memory_(buffer.memory())
{
    const size_t bytes = sizeof(Description) + memory_->blocks() * sizeof(uint32_t);
    void* const memory =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw Failure("cannot save frames and sound: " + error_text(errno));
    shared_ = {static_cast<Description*>(memory), Unmap{bytes}};
}

void SnapshotHandover::put(const Snapshot& snapshot)
{
    const SharedBytes& bytes = snapshot.bytes_;
    *shared_ = {.begin = bytes.begin(),
                .end = bytes.end(),
                .first_frame = snapshot.first_frame_,
                .blocks = bytes.blocks().size()};
    std::ranges::copy(bytes.blocks(), shared_->numbers());
}

Snapshot SnapshotHandover::get() const
{
    const std::shared_ptr<BlockMemory> used(
        memory_.get(), [owner = memory_](const BlockMemory* memory) { memory->let_go(); });
    const uint32_t* const numbers = shared_->numbers();
    return {SharedBytes(used, {numbers, numbers + shared_->blocks}, shared_->begin, shared_->end),
            shared_->first_frame};
}

} // namespace client::movie
