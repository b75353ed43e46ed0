#include "movie/replay_buffer.h"

#include <algorithm>

namespace client::movie {
namespace {

/** Sound reaches this much farther back than the first frame, whose exact time is not known yet. */
constexpr uint64_t sound_margin_us = 200'000;

} // namespace

ReplayBuffer::ReplayBuffer(std::chrono::microseconds last, uint64_t most_bytes)
    : last_us_(static_cast<uint64_t>(last.count())), most_bytes_(most_bytes)
{
}

void ReplayBuffer::put_frame(const EncodedFrame& frame)
{
    if (frame.key)
        groups_.emplace_back();
    if (groups_.empty()) // begins with a key frame
        return;
    Group& group = groups_.back();
    group.frames.push_back(
        std::make_shared<const Kept<uint8_t>>(frame.pts_us, frame.key, frame.bytes, alive_));
    group.bytes += frame.bytes.size();
    bytes_ += frame.bytes.size();
    newest_us_ = std::max(newest_us_, frame.pts_us);
    forget_old();
}

void ReplayBuffer::put_sound(uint64_t time_us, std::span<const int16_t> samples)
{
    sound_.push_back(std::make_shared<const Kept<int16_t>>(time_us, false, samples, alive_));
    bytes_ += samples.size_bytes();
    forget_old();
}

void ReplayBuffer::forget_old()
{
    while (groups_.size() > 1 &&
           (groups_[1].frames.front()->time_us + last_us_ <= newest_us_ || bytes_ > most_bytes_))
        forget_group();
    const uint64_t begin = groups_.empty() ? UINT64_MAX : groups_.front().frames.front()->time_us;
    while (!sound_.empty() &&
           (groups_.empty() ? sound_.size() > 100
                            : sound_.front()->time_us + sound_margin_us < begin)) {
        bytes_ -= sound_.front()->content.size() * sizeof(int16_t);
        sound_.pop_front();
    }
}

void ReplayBuffer::forget_group()
{
    bytes_ -= groups_.front().bytes;
    groups_.pop_front();
}

Snapshot ReplayBuffer::snapshot() const
{
    Snapshot made;
    for (const Group& group : groups_)
        made.frames.insert(made.frames.end(), group.frames.begin(), group.frames.end());
    made.sound.assign(sound_.begin(), sound_.end());
    return made;
}

std::chrono::microseconds ReplayBuffer::length() const
{
    const uint64_t first = groups_.empty() ? newest_us_ : groups_.front().frames.front()->time_us;
    return std::chrono::microseconds(newest_us_ > first ? newest_us_ - first : 0);
}

} // namespace client::movie
