#include "movie/replay_buffer.h"

#include <algorithm>
#include <array>
#include <bit>
#include <utility>

namespace client::movie {
namespace {

/** Sound reaches this much farther back than the first frame, whose exact time is not known yet. */
constexpr uint64_t sound_margin_us = 200'000;
/** The same while there is no frame. */
constexpr uint64_t sound_without_frames_us = 2'000'000;

/** Precedes the content of a piece. */
struct Header {
    uint64_t time_us;
    uint32_t bytes;
    KeptPiece::Kind kind;
};

template <typename Bytes> Header header_at(const Bytes& bytes, uint64_t at)
{
    std::array<uint8_t, sizeof(Header)> read;
    bytes.read(at, read);
    return std::bit_cast<Header>(read);
}

/** Half of the memory in whole blocks, without those that are in use in part. */
uint64_t most_kept(uint64_t memory_bytes)
{
    constexpr uint64_t seams = 2;
    return (memory_bytes / BlockMemory::block_bytes / 2 - seams) * BlockMemory::block_bytes;
}

} // namespace

std::span<const int16_t> KeptPiece::samples() const
{
    return {reinterpret_cast<const int16_t*>(bytes.data()), bytes.size() / sizeof(int16_t)};
}

Snapshot::Snapshot(SharedBytes bytes, uint64_t first_frame)
    : bytes_(std::move(bytes)), at_(bytes_.begin()), first_frame_(first_frame)
{
}

bool Snapshot::next(KeptPiece& piece)
{
    while (at_ < bytes_.end()) {
        const uint64_t begin = at_;
        const Header header = header_at(bytes_, begin);
        at_ += sizeof header + header.bytes;
        if (header.kind != KeptPiece::Kind::sound && begin < first_frame_)
            continue;
        content_.resize(header.bytes);
        bytes_.read(begin + sizeof header, content_);
        bytes_.drop_before(at_);
        piece = {.kind = header.kind, .time_us = header.time_us, .bytes = content_};
        return true;
    }
    return false;
}

double Snapshot::part_read() const
{
    const auto all = static_cast<double>(bytes_.end() - bytes_.begin());
    return all > 0 ? static_cast<double>(at_ - bytes_.begin()) / all : 1;
}

void Snapshot::give_back(double part)
{
    const auto all = static_cast<double>(bytes_.end() - bytes_.begin());
    bytes_.drop_before(bytes_.begin() + static_cast<uint64_t>(part * all));
}

ReplayBuffer::ReplayBuffer(std::chrono::microseconds last, uint64_t memory_bytes)
    : last_us_(static_cast<uint64_t>(last.count())),
      queue_(static_cast<uint32_t>(memory_bytes / BlockMemory::block_bytes)),
      most_bytes_(most_kept(memory_bytes))
{
}

void ReplayBuffer::put_frame(const EncodedFrame& frame)
{
    // A group without its first frames cannot be decoded.
    if (!make_room(sizeof(Header) + frame.bytes.size()) || (groups_.empty() && !frame.key))
        return;
    if (frame.key)
        groups_.push_back({.begin = queue_.end(), .time_us = frame.pts_us});
    newest_us_ = std::max(newest_us_, frame.pts_us);
    put(frame.key ? KeptPiece::Kind::key_frame : KeptPiece::Kind::frame, frame.pts_us, frame.bytes);
}

void ReplayBuffer::put_sound(uint64_t time_us, std::span<const int16_t> samples)
{
    if (!make_room(sizeof(Header) + samples.size_bytes()))
        return;
    newest_sound_us_ = std::max(newest_sound_us_, time_us);
    put(KeptPiece::Kind::sound, time_us,
        {reinterpret_cast<const uint8_t*>(samples.data()), samples.size_bytes()});
}

void ReplayBuffer::put(KeptPiece::Kind kind, uint64_t time_us, std::span<const uint8_t> content)
{
    const Header header{
        .time_us = time_us, .bytes = static_cast<uint32_t>(content.size()), .kind = kind};
    queue_.put(std::bit_cast<std::array<uint8_t, sizeof header>>(header));
    queue_.put(content);
    while (groups_.size() > 1 && groups_[1].time_us + last_us_ <= newest_us_)
        groups_.pop_front();
    forget_unneeded();
}

bool ReplayBuffer::make_room(uint64_t bytes)
{
    while (queue_.end() - queue_.begin() + bytes > most_bytes_ || queue_.room() < bytes)
        if (!forget_oldest())
            return false;
    return true;
}

bool ReplayBuffer::forget_oldest()
{
    if (queue_.begin() == queue_.end())
        return false;
    if (groups_.empty())
        queue_.drop_before(queue_.end());
    else
        groups_.pop_front();
    forget_unneeded();
    return true;
}

void ReplayBuffer::forget_unneeded()
{
    const uint64_t sound_from_us =
        groups_.empty()
            ? newest_sound_us_ - std::min(newest_sound_us_, sound_without_frames_us)
            : groups_.front().time_us - std::min(groups_.front().time_us, sound_margin_us);
    uint64_t at = queue_.begin();
    while (at < queue_.end()) {
        const Header header = header_at(queue_, at);
        if (header.kind == KeptPiece::Kind::sound ? header.time_us >= sound_from_us
                                                  : at >= first_frame())
            break;
        at += sizeof header + header.bytes;
    }
    queue_.drop_before(at);
}

uint64_t ReplayBuffer::first_frame() const
{
    return groups_.empty() ? queue_.end() : groups_.front().begin;
}

Snapshot ReplayBuffer::snapshot() const
{
    return {queue_.share(), first_frame()};
}

std::chrono::microseconds ReplayBuffer::length() const
{
    const uint64_t first = groups_.empty() ? newest_us_ : groups_.front().time_us;
    return std::chrono::microseconds(newest_us_ > first ? newest_us_ - first : 0);
}

} // namespace client::movie
