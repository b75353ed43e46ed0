#include "movie/byte_queue.h"

#include <algorithm>
#include <utility>

namespace client::movie {
namespace {

constexpr uint64_t block_bytes = BlockMemory::block_bytes;

/** Blocks that begin before `at`. */
uint64_t blocks_before(uint64_t at)
{
    return (at + block_bytes - 1) / block_bytes;
}

/** Copies from blocks. @param block_of returns the number of the block with a position */
template <typename BlockOf>
void copy_out(const BlockMemory& memory, uint64_t at, std::span<uint8_t> bytes, BlockOf block_of)
{
    while (!bytes.empty()) {
        const auto rest = memory.block(block_of(at)).subspan(at % block_bytes);
        const size_t count = std::min(bytes.size(), rest.size());
        std::copy_n(rest.begin(), count, bytes.begin());
        bytes = bytes.subspan(count);
        at += count;
    }
}

} // namespace

SharedBytes::SharedBytes(std::shared_ptr<BlockMemory> memory, std::vector<uint32_t> blocks,
                         uint64_t begin, uint64_t end)
    : memory_(std::move(memory)), blocks_(std::move(blocks)), begin_(begin), end_(end)
{
    for (const uint32_t number : blocks_)
        memory_->begin_to_read(number);
}

SharedBytes::SharedBytes(SharedBytes&& other) noexcept
    : memory_(std::move(other.memory_)), blocks_(std::exchange(other.blocks_, {})),
      dropped_(other.dropped_), begin_(other.begin_), end_(other.end_)
{
}

SharedBytes::~SharedBytes()
{
    if (memory_)
        drop_before(blocks_before(end_) * block_bytes);
}

void SharedBytes::read(uint64_t at, std::span<uint8_t> bytes) const
{
    copy_out(*memory_, at, bytes, [this](uint64_t position) {
        return blocks_[position / block_bytes - begin_ / block_bytes];
    });
}

void SharedBytes::drop_before(uint64_t at)
{
    const uint64_t end =
        std::min(at / block_bytes - begin_ / block_bytes, uint64_t{blocks_.size()});
    for (; dropped_ < end; ++dropped_)
        memory_->end_to_read(blocks_[dropped_]);
}

ByteQueue::ByteQueue(uint32_t blocks)
    : memory_(std::make_shared<BlockMemory>(blocks)), free_(blocks), queued_(blocks)
{
    dropped_.reserve(blocks);
    spare_.reserve(blocks / 32);
    for (uint32_t number = 0; number < blocks; ++number)
        free_[number] = blocks - 1 - number;
}

uint64_t ByteQueue::room()
{
    collect();
    return blocks_before(end_) * block_bytes - end_ + (free_.size() + spare_.size()) * block_bytes;
}

void ByteQueue::put(std::span<const uint8_t> bytes)
{
    while (!bytes.empty()) {
        if (end_ % block_bytes == 0)
            queued_[slot(end_)] = take_block();
        const auto rest = memory_->block(queued_[slot(end_)]).subspan(end_ % block_bytes);
        const size_t count = std::min(bytes.size(), rest.size());
        std::copy_n(bytes.begin(), count, rest.begin());
        bytes = bytes.subspan(count);
        end_ += count;
    }
}

void ByteQueue::read(uint64_t at, std::span<uint8_t> bytes) const
{
    copy_out(*memory_, at, bytes, [this](uint64_t position) { return queued_[slot(position)]; });
}

void ByteQueue::drop_before(uint64_t at)
{
    for (uint64_t block = begin_ / block_bytes; block < at / block_bytes; ++block)
        dropped_.push_back(queued_[slot(block * block_bytes)]);
    begin_ = at;
    collect();
}

void ByteQueue::collect()
{
    std::erase_if(dropped_, [this](uint32_t number) {
        if (memory_->is_read(number))
            return false;
        reuse(number);
        return true;
    });
}

void ByteQueue::reuse(uint32_t block)
{
    if (spare_.size() < memory_->blocks() / 32)
        return spare_.push_back(block);
    memory_->give_back(block);
    free_.push_back(block);
}

uint32_t ByteQueue::take_block()
{
    auto& from = spare_.empty() ? free_ : spare_;
    const uint32_t block = from.back();
    from.pop_back();
    return block;
}

SharedBytes ByteQueue::share() const
{
    std::vector<uint32_t> blocks;
    for (uint64_t block = begin_ / block_bytes; block < blocks_before(end_); ++block)
        blocks.push_back(queued_[slot(block * block_bytes)]);
    return {memory_, std::move(blocks), begin_, end_};
}

uint64_t ByteQueue::memory_in_use() const
{
    return (memory_->blocks() - free_.size()) * block_bytes;
}

} // namespace client::movie
