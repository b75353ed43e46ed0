#include "encoder/refinement.h"

#include <algorithm>
#include <bit>

namespace zu3host {
namespace {

// A video has at least five pictures within 8/30 s, a page scrolled by a wheel has three. The next
// one is shown within 1/24 s.
constexpr int least_changes_of_video = 5;
constexpr uint32_t slowest_video = 24;

// A letter or a moved pointer has 80 to 300 bytes, and is sharp enough for a quarter of a second.
constexpr uint32_t most_bytes_of_small_change = 1000;

} // namespace

Refinement::Refinement(uint32_t frame_rate)
    : pictures_of_video_(std::clamp(frame_rate * 4 / 15, 1u, 31u)),
      wait_in_video_((frame_rate - 1) / slowest_video), wait_after_small_change_(frame_rate / 4 + 1)
{
}

void Refinement::note_encoded(uint32_t size, bool key, bool unchanged)
{
    if (key)
        changed_little_ = false;
    else if (!unchanged)
        changed_little_ = (changed_little_ || equal_sizes_ >= equal_sizes_until_settled) &&
                          size < most_bytes_of_small_change;
    equal_sizes_ = unchanged && size == last_size_ ? equal_sizes_ + 1 : unchanged;
    last_size_ = size;
    note(unchanged);
}

void Refinement::note_repeated()
{
    note(true);
}

void Refinement::note(bool unchanged)
{
    changes_ = (changes_ & UINT32_MAX >> 1) << 1 | !unchanged; // the oldest one is forgotten
    unchanged_ = unchanged ? unchanged_ + 1 : 0;
}

bool Refinement::may_wait() const
{
    const uint32_t recent = changes_ & ((uint32_t{1} << pictures_of_video_) - 1);
    if (std::popcount(recent) >= least_changes_of_video && unchanged_ < wait_in_video_)
        return true;
    return changed_little_ && unchanged_ < wait_after_small_change_;
}

} // namespace zu3host
