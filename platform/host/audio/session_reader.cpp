#include "audio/session_reader.h"

#include "audio/monotonic_time.h"
#include "statistics/counters.h"

namespace zu3host {

SessionReader::SessionReader(Current current) : current_(current), session_(current())
{
    if (session_)
        position_ = session_->end();
}

void SessionReader::lose(int64_t frames)
{
    position_ += frames;
    if (frames > 0)
        count(counters().audio_bytes_lost, static_cast<uint64_t>(frames) * pcm_frame_bytes);
}

int64_t SessionReader::waiting()
{
    bool finished = false;
    if (session_) {
        const CaptureSession::Taken taken = session_->waiting(position_, finished);
        lose(taken.lost);
        if (taken.frames > 0 || !finished)
            return taken.frames;
    }
    // A finished session is not the current one any more, so that this ends.
    session_ = current_();
    position_ = 0;
    return session_ ? waiting() : 0;
}

size_t SessionReader::level()
{
    return static_cast<size_t>(waiting()) * pcm_frame_bytes;
}

size_t SessionReader::read(void* dst, size_t size)
{
    if (size < pcm_frame_bytes || waiting() == 0)
        return 0;
    const CaptureSession::Taken taken =
        session_->read(position_, static_cast<int64_t>(size / pcm_frame_bytes), dst);
    lose(taken.lost);
    position_ += taken.frames;
    return static_cast<size_t>(taken.frames) * pcm_frame_bytes;
}

int64_t SessionReader::time_of_next_us()
{
    waiting();
    return session_ ? session_->time_us(position_) : monotonic_us();
}

} // namespace zu3host
