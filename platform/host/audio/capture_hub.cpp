#include "audio/capture_hub.h"

#include "audio/capture_session.h"
#include "audio/monotonic_time.h"
#include "audio/session_reader.h"

#include <mutex>

namespace zu3host {

namespace {

/** The one session of the process that all captures share. */
struct Hub {
    std::mutex mutex;
    // under the mutex
    int users = 0;
    // under the mutex; null while there is no user
    std::shared_ptr<CaptureSession> session;
};

// Never destroyed: a capture that is still started when the process ends has a thread.
Hub& hub()
{
    static auto& only = *new Hub;
    return only;
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
        hub().session = std::make_shared<CaptureSession>(open_sound_source, monotonic_us);
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
