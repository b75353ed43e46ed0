#pragma once

#include <deque>
#include <memory>
#include <optional>

#include "files/byte_sink.h"
#include "movie/movie_module.h"
#include "movie/timeline.h"

namespace client::movie {

/** Bytes that may wait for a disk or a reader: seconds of the highest rates. */
inline constexpr uint64_t most_waiting = 32 << 20;

/** Joins the frames and sound of the library, and writes the movie to a sink. */
class MovieRecording final : private MovieOutput {
public:
    /**
     * @param limit number of frames after which the movie is at its end
     * @param sink must outlive this object
     */
    MovieRecording(const MovieFormat& format, int64_t limit, ByteSink& sink);
    ~MovieRecording() override;

    // These throw Failure if the sink or the module fails; error() of the sink has details.
    void put_frame(const EncodedFrame& frame);
    /** @param time_us when the first of the samples was heard */
    void put_sound(uint64_t time_us, std::span<const int16_t> samples);
    /** Frames captured after this time follow the earlier ones without a gap, and so does sound. */
    void resume_at(uint64_t time_us) { resumed_us_ = time_us; }
    /** Whether there is sound for all frames. */
    bool has_sound_for_all() const;
    /** Completes the movie; the last call. */
    void finish();

    bool at_end() const { return frames_.next() >= limit_; }
    /** Frames in the movie. */
    uint64_t frames() const { return written_; }
    /** Whether there is room again, and frames are left out up to the next key frame. */
    bool needs_key() const { return waits_for_key_ && !sink_.pending(); }
    /** Frames left out for lack of room. */
    uint64_t left_out() const { return left_out_; }
    /** The end of the last whole piece in the first `bytes`: the rest does not play. */
    uint64_t end_of_pieces(uint64_t bytes) const;

private:
    void write(uint64_t at, std::span<const uint8_t> bytes) override;
    void take(const PlacedFrame& frame);
    bool has_room_for(const PlacedFrame& frame);
    int64_t sound_end() const;
    void end_stretch();
    template <typename Action> void with_writer(Action action);
    void note_piece();

    const MovieFormat format_;
    const int64_t limit_;
    ByteSink& sink_;
    std::unique_ptr<MovieWriter> writer_;
    FrameLine frames_;
    SoundLine sound_;
    std::optional<uint64_t> resumed_us_;
    bool waits_for_key_ = false;
    uint64_t end_ = 0;
    /** ends of fragments or clusters: the last written one, and the waiting ones */
    std::deque<uint64_t> pieces_{0};
    uint64_t written_ = 0;
    uint64_t left_out_ = 0;
};

} // namespace client::movie
