#include "movie/live_movie.h"

#include <algorithm>
#include <poll.h>
#include <utility>

#include "process/messages.h"
#include <screenrecord/screenrecord.h>

namespace client::movie {
namespace {

// as often as a picture that changes has them
constexpr std::chrono::milliseconds usual_distance_of_key_frames(2000);

} // namespace

LiveMovie::LiveMovie(const MovieFormat& format, int64_t limit, ByteSink& sink)
    : format_(format), movie_(format, limit, sink)
{
}

void LiveMovie::start(const StreamOptions& options, StopSignals& signals)
{
    if (format_.sound)
        sound_.emplace();
    stream_.emplace(options, Size{format_.width, format_.height}, signals, "cannot record");
}

bool LiveMovie::take()
{
    if (sound_)
        sound_->read([this](uint64_t time_us, std::span<const int16_t> samples) {
            if (!paused_)
                movie_.put_sound(time_us, samples);
        });
    EncodedFrame frame;
    if (!stream_->take(frame))
        return false;
    lost_.frame_taken(frame.pts_us);
    ++taken_;
    movie_.put_frame(frame);
    ask_for_key();
    mend_gap();
    return true;
}

void LiveMovie::ask_for_key()
{
    if (!std::exchange(key_asked_, movie_.needs_key()) && key_asked_) {
        // Frames left out up to the key frame do not count as lost.
        lost_.break_stretch();
        video_capenc_requestKeyFrame();
    }
}

// Frames behind a lost one are damaged up to a key frame, which may be far away.
void LiveMovie::mend_gap()
{
    if (lost_.count() <= mended_ || Clock::now() < next_mend_)
        return;
    mended_ = lost_.count();
    next_mend_ = Clock::now() + usual_distance_of_key_frames;
    video_capenc_requestKeyFrame();
}

void LiveMovie::pause()
{
    paused_ = true;
    video_capenc_pause();
}

void LiveMovie::resume()
{
    if (!std::exchange(paused_, false))
        return;
    // Frames of a pause are not lost.
    lost_.break_stretch();
    movie_.resume_at(now_us());
    video_capenc_resume();
}

void LiveMovie::take_the_rest()
{
    const TimePoint limit = Clock::now() + std::chrono::milliseconds(100);
    while (take())
        ;
    while (sound_ && !movie_.has_sound_for_all() && Clock::now() < limit) {
        take();
        poll(nullptr, 0, 5);
    }
}

void LiveMovie::count_unread()
{
    const auto counted = statistics_.read();
    // The time stamp of a key frame may be a frame late, so one proves no loss.
    const uint64_t between = lost_.count() > 1 ? lost_.count() : 0;
    const uint64_t given = counted ? counted->pictures_encoded : taken_ + between;
    unread_ = given - std::min(given, taken_);
}

void LiveMovie::close()
{
    stream_.reset();
    sound_.reset();
}

std::optional<std::string> LiveMovie::lacking(const std::string& path, const char* output) const
{
    // While the output is too slow, the library drops frames as well, up to the key frame.
    if (movie_.left_out() > 0)
        return format_text("%llu pictures are missing from %s: its %s was too slow",
                           static_cast<unsigned long long>(missing()), path.c_str(), output);
    if (unread_ > 0)
        return format_text("%llu pictures are missing from %s: this machine was too busy to "
                           "read them in time",
                           static_cast<unsigned long long>(unread_), path.c_str());
    const auto counted = statistics_.read();
    if (format_.sound && counted && counted->sound_lost)
        return "the sound server went away for a while: " + path + " is silent there";
    return std::nullopt;
}

} // namespace client::movie
