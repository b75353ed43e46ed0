#pragma once

#include "audio/sound_timeline.h"

#include <optional>
#include <vector>

namespace zu3host {

/**
 * Puts the pieces that a sound server delivers into a timeline, at the time they were heard. Pieces
 * follow one another without a seam; the server's times jitter, so only their mean counts. If the
 * clock of the sound hardware drifts from the monotonic clock, a piece is occasionally stretched or
 * shrunk by one frame, which is inaudible. Silence fills holes. Not thread-safe.
 */
class SoundPlacement {
public:
    /** The next piece starts a new row, whenever it was heard. */
    void restart() { expected_.reset(); }
    /** Whether the row has begun and nothing was appended to it since. */
    bool continues(const SoundTimeline& timeline) const { return expected_ == timeline.end(); }
    /**
     * @param samples `frames` frames, or null for a hole
     * @param heard_us the moment of the first frame as the server sees it
     */
    void place(SoundTimeline& timeline, const int16_t* samples, int64_t frames, int64_t heard_us);

private:
    void align(SoundTimeline& timeline, const int16_t* samples, int64_t frames, int64_t error);
    void smooth(int64_t error, int64_t frames);
    int64_t correction(int64_t frames);
    void append_stretched(SoundTimeline& timeline, const int16_t* samples, int64_t frames,
                          int64_t by);

    /** where the row continues; none = it has not begun */
    std::optional<int64_t> expected_;
    /** frames by which pieces were heard later than they are placed */
    double mean_error_ = 0;
    int64_t frames_averaged_ = 0;
    int64_t frames_since_correction_ = 0;
    bool correcting_ = false;
    std::vector<int16_t> stretched_;
};

} // namespace zu3host
