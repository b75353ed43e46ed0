#include "audio/capture_session.h"

#include "audio/sound_choice.h"
#include "statistics/counters.h"

#include <algorithm>
#include <common/clock.h>
#include <common/never_destroyed.h>
#include <mutex>

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
    return session_ ? session_->time_us(position_) : common::monotonic_us();
}

namespace {

/** The one session of the process that all captures share. */
struct Hub {
    std::mutex mutex;
    // under the mutex
    int users = 0;
    // under the mutex; null while there is no user
    std::shared_ptr<CaptureSession> session;
};

Hub& hub()
{
    static common::NeverDestroyed<Hub> only;
    return *only;
}

std::shared_ptr<CaptureSession> current_session()
{
    const std::lock_guard lock(hub().mutex);
    return hub().session;
}

} // namespace

CaptureUse::CaptureUse()
{
    const std::lock_guard lock(hub().mutex);
    if (hub().users == 0)
        hub().session = std::make_shared<CaptureSession>(open_sound_source, common::monotonic_us);
    ++hub().users;
}

CaptureUse::~CaptureUse()
{
    std::shared_ptr<CaptureSession> last;
    {
        const std::lock_guard lock(hub().mutex);
        if (--hub().users == 0)
            last = std::move(hub().session);
    }
    if (last)
        last->finish();
}

bool audio_capture_running()
{
    return current_session() != nullptr;
}

std::unique_ptr<PcmReader> make_pcm_reader()
{
    return std::make_unique<SessionReader>(current_session);
}

} // namespace zu3host
