#include "audio/capture_session.h"

#include <algorithm>

namespace zu3host {

CaptureSession::CaptureSession(const OpenSource& open, Clock clock, int64_t capacity)
    : clock_(clock), shared_(clock(), capacity)
{
    auto source = open(shared_);
    const std::lock_guard lock(shared_.mutex);
    source_ = std::move(source);
}

void CaptureSession::finish()
{
    std::unique_ptr<SoundSource> source;
    {
        const std::lock_guard lock(shared_.mutex);
        advance();
        finished_ = true;
        source = std::move(source_);
    }
    // The source's thread may wait for the lock: it is joined without.
}

void CaptureSession::advance()
{
    if (source_)
        source_->advance(shared_.timeline, clock_());
}

int64_t CaptureSession::end()
{
    const std::lock_guard lock(shared_.mutex);
    advance();
    return shared_.timeline.end();
}

CaptureSession::Taken CaptureSession::from(int64_t position) const
{
    const int64_t begin = std::max(position, shared_.timeline.oldest());
    return {shared_.timeline.end() - begin, begin - position};
}

CaptureSession::Taken CaptureSession::waiting(int64_t position, bool& finished)
{
    const std::lock_guard lock(shared_.mutex);
    advance();
    finished = finished_;
    return from(position);
}

CaptureSession::Taken CaptureSession::read(int64_t position, int64_t frames, void* dst)
{
    const std::lock_guard lock(shared_.mutex);
    advance();
    Taken taken = from(position);
    taken.frames = std::min(taken.frames, frames);
    shared_.timeline.copy(position + taken.lost, taken.frames, dst);
    return taken;
}

int64_t CaptureSession::time_us(int64_t frame)
{
    const std::lock_guard lock(shared_.mutex);
    return shared_.timeline.time_us(frame);
}

} // namespace zu3host
