#pragma once

#include <memory>

#include "movie/replay_buffer.h"

namespace client::movie {

/**
 * Passes snapshots of a buffer, one at a time, on to a copy of this process that was begun later.
 * Both processes see the same bytes; each keeps to itself which of them it has read.
 */
class SnapshotHandover {
public:
    /** Throws Failure if the system refuses the memory. */
    explicit SnapshotHandover(const ReplayBuffer& buffer);

    /** Keep the snapshot until the other process has read it. */
    void put(const Snapshot& snapshot);
    /** The snapshot that was put last, for the other process, which lets go of it at its end. */
    Snapshot get() const;

private:
    struct Description;
    struct Unmap {
        size_t bytes;
        void operator()(Description* description) const;
    };

    const std::shared_ptr<BlockMemory> memory_;
    std::unique_ptr<Description, Unmap> shared_;
};

} // namespace client::movie
