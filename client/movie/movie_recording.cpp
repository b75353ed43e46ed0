#include "movie/movie_recording.h"

#include <algorithm>

#include "movie/movie_module.h"
#include "process/messages.h"

namespace client::movie {
namespace {

// If frames have no room, sound is accepted for this many more bytes, then replaced by silence.
constexpr uint64_t room_for_sound = 4 << 20;

} // namespace

MovieRecording::MovieRecording(const MovieFormat& format, int64_t limit, ByteSink& sink)
    : format_(format), limit_(limit), sink_(sink), writer_(movie_module().open(format, *this)),
      frames_(format.fps, [this](const PlacedFrame& frame) { take(frame); }),
      sound_([this](std::span<const int16_t> samples) {
          with_writer([&] { writer_->put_sound(samples); });
      })
{
}

MovieRecording::~MovieRecording() = default;

template <typename Action> void MovieRecording::with_writer(Action action)
{
    try {
        action();
    } catch (const Failure&) {
        throw;
    } catch (const std::exception& error) {
        throw Failure(std::string("cannot join frames and sound: ") + error.what());
    }
    note_piece();
}

// A muxer writes whole fragments or clusters.
void MovieRecording::note_piece()
{
    if (pieces_.back() != end_)
        pieces_.push_back(end_);
    while (pieces_.size() > 1 && pieces_[1] <= sink_.delivered())
        pieces_.pop_front();
}

uint64_t MovieRecording::end_of_pieces(uint64_t bytes) const
{
    uint64_t end = 0;
    for (const uint64_t piece : pieces_)
        end = piece <= bytes ? piece : end;
    return end;
}

void MovieRecording::write(uint64_t at, std::span<const uint8_t> bytes)
{
    const ByteSink::State state = at == end_ ? sink_.put(bytes) : sink_.put_at(at, bytes);
    if (state == ByteSink::State::failed || state == ByteSink::State::reader_gone)
        throw Failure("cannot write: " + error_text(sink_.error()));
    end_ = std::max(end_, at + bytes.size());
}

void MovieRecording::put_frame(const EncodedFrame& frame)
{
    if (resumed_us_ && frame.captured_us > *resumed_us_) {
        resumed_us_.reset();
        end_stretch();
    }
    frames_.put(frame);
}

void MovieRecording::put_sound(uint64_t time_us, std::span<const int16_t> samples)
{
    sound_.put(time_us, samples);
}

int64_t MovieRecording::sound_end() const
{
    return frames_.sample_behind(std::min(frames_.next(), limit_));
}

bool MovieRecording::has_sound_for_all() const
{
    return frames_.next() == 0 ||
           sound_.reaches(sound_end(), [this](uint64_t us) { return frames_.sample_at(us); });
}

bool MovieRecording::has_room_for(const PlacedFrame& frame)
{
    if (sink_.pending())
        waits_for_key_ = true;
    else if (frame.key)
        waits_for_key_ = false;
    return !waits_for_key_;
}

void MovieRecording::take(const PlacedFrame& frame)
{
    if (frame.index >= limit_)
        return;
    if (has_room_for(frame)) {
        with_writer([&] { writer_->put_frame(frame.bytes, frame.index, frame.key); });
        ++written_;
    } else {
        ++left_out_;
    }
    if (!format_.sound || written_ == 0 || !frames_.settled())
        return;
    if (sink_.pending() && sink_.backlog() > room_for_sound + most_waiting) {
        sound_.forget();
        sound_.fill(sound_end());
    }
    sound_.hand_on(sound_end(), [this](uint64_t us) { return frames_.sample_at(us); });
}

void MovieRecording::end_stretch()
{
    frames_.flush();
    if (format_.sound && written_ > 0) {
        sound_.hand_on(sound_end(), [this](uint64_t us) { return frames_.sample_at(us); });
        sound_.fill(sound_end());
    }
    // Waiting sound from before the next stretch has no place in it.
    frames_.begin_stretch();
}

void MovieRecording::finish()
{
    end_stretch();
    if (written_ > 0)
        with_writer([this] { writer_->finish(); });
}

} // namespace client::movie
