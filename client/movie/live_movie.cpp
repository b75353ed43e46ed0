#include "movie/live_movie.h"

#include <algorithm>
#include <poll.h>
#include <utility>

#include "process/messages.h"
#include <screenrecord/screenrecord.h>

namespace client::movie {
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
    newest_us_ = frame.pts_us;
    ++taken_;
    movie_.put_frame(frame);
    ask_for_key();
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

// The library keeps three frames. A busy encoder still has more pictures, and their frames would be
// dropped while a stop waits for them.
void LiveMovie::empty_encoder()
{
    const TimePoint limit = Clock::now() + std::chrono::milliseconds(300);
    const uint64_t end_us = now_us();
    video_capenc_pause();
    while (newest_us_ + 1'000'000 / format_.fps < end_us && Clock::now() < limit)
        if (!take())
            poll(nullptr, 0, 5);
}

void LiveMovie::take_the_rest()
{
    if (!paused_)
        empty_encoder();
    stop();
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
