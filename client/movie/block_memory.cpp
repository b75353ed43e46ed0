#include "movie/block_memory.h"

#include <cerrno>
#include <sys/mman.h>

#include "process/messages.h"

namespace client::movie {

BlockMemory::BlockMemory(uint32_t blocks)
    : blocks_(blocks), readers_(std::make_unique<std::atomic<uint32_t>[]>(blocks))
{
    const size_t size = size_t{blocks} * block_bytes;
    void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED)
        throw Failure("cannot keep frames and sound: " + error_text(errno));
    begin_ = static_cast<uint8_t*>(memory);
    // A huge page would be larger than many blocks.
    madvise(begin_, size, MADV_NOHUGEPAGE);
}

BlockMemory::~BlockMemory()
{
    munmap(begin_, size_t{blocks_} * block_bytes);
}

void BlockMemory::give_back(uint32_t number) const
{
    madvise(block(number).data(), block_bytes, MADV_REMOVE);
}

void BlockMemory::let_go() const
{
    madvise(begin_, size_t{blocks_} * block_bytes, MADV_DONTNEED);
}

} // namespace client::movie
