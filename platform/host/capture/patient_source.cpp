#include "capture/patient_source.h"

#include "base/border.h"
#include "base/threads.h"
#include "statistics/counters.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace zu3host {

namespace {

/**
 * Waits are counted in slices, not by the clock: a process that was stopped, or not scheduled, for
 * any time has waited for one slice when it continues, and reads the answer before it checks the
 * limit.
 */
constexpr auto slice = std::chrono::milliseconds(50);
constexpr uint32_t worth_a_word_ms = 1000;

std::atomic<uint32_t> times_given_up{0};

/** Whether displays were given up since the construction. */
class GivenUp {
public:
    explicit operator bool() const { return times_given_up != before_; }

private:
    const uint32_t before_ = times_given_up;
};

} // namespace

void give_up_displays()
{
    ++times_given_up;
}

/** The state shared by both threads. */
struct PatientSource::Shared {
    std::mutex mutex;
    std::condition_variable changed;
    // used by the thread while it is busy, except for cut()
    std::unique_ptr<WaitingSource> source;
    // the last one handed to the thread
    GrabRequest request{};
    // its result
    std::optional<BgraImage> image;
    // the thread opens or grabs
    bool busy = true;
    bool leaving = false;

    static void serve(const std::shared_ptr<Shared>& shared, const Open& open);
    std::optional<BgraImage> glance(const GrabRequest& next);
    void hand_over(const GrabRequest& next);
    bool wait_a_slice(std::unique_lock<std::mutex>& lock)
    {
        return changed.wait_for(lock, slice, [this] { return !busy; });
    }
};

void PatientSource::Shared::serve(const std::shared_ptr<Shared>& shared, const Open& open)
{
    auto opened = at_border("Opening the display", std::unique_ptr<WaitingSource>(), open);
    std::unique_lock lock(shared->mutex);
    shared->source = std::move(opened);
    while (true) {
        shared->busy = false;
        shared->changed.notify_all();
        shared->changed.wait(lock, [&] { return shared->busy || shared->leaving; });
        if (shared->leaving)
            break;
        const GrabRequest request = shared->request;
        lock.unlock();
        const auto image = at_border("Reading the display", std::optional<BgraImage>(),
                                     [&] { return shared->source->grab(request); });
        lock.lock();
        shared->image = image;
    }
    shared->source.reset();
}

std::optional<BgraImage> PatientSource::Shared::glance(const GrabRequest& next)
{
    return at_border("Reading the display", std::optional<BgraImage>(),
                     [&] { return source->glance(next); });
}

void PatientSource::Shared::hand_over(const GrabRequest& next)
{
    request = next;
    image.reset();
    busy = true;
    changed.notify_all();
}

std::unique_ptr<PatientSource> PatientSource::open(const std::string& name, Open open,
                                                   std::chrono::milliseconds limit)
{
    const auto shared = std::make_shared<Shared>();
    std::thread thread = start_thread(
        "zu3 display", [shared, open = std::move(open)] { Shared::serve(shared, open); });
    std::unique_lock lock(shared->mutex);
    bool answered = false;
    const GivenUp given_up;
    for (auto left = limit / slice; left > 0 && !answered && !given_up; --left)
        answered = shared->wait_a_slice(lock);
    if (shared->source)
        return std::unique_ptr<PatientSource>(
            new PatientSource(name, shared, std::move(thread), shared->source->awaits_changes()));
    shared->leaving = true;
    shared->changed.notify_all();
    lock.unlock();
    if (answered) {
        thread.join();
        return nullptr;
    }
    HOST_LOGE("%s does not answer: it cannot be captured.", name.c_str());
    thread.detach();
    return nullptr;
}

PatientSource::~PatientSource()
{
    {
        const std::lock_guard lock(shared_->mutex);
        shared_->leaving = true;
        if (shared_->busy)
            shared_->source->cut();
        shared_->changed.notify_all();
    }
    thread_.join();
    counters().display_silent_ms.store(0, std::memory_order_relaxed);
}

std::optional<BgraImage> PatientSource::grab(const GrabRequest& request)
{
    std::unique_lock lock(shared_->mutex);
    if (!shared_->busy) {
        if (auto image = silent_ms_ == 0 ? shared_->glance(request) : std::nullopt)
            return image;
        shared_->hand_over(request);
    }
    const GivenUp given_up;
    for (auto left = request.patience / slice;
         left > 0 && !request.stop.stop_requested() && !given_up;) {
        if (!shared_->wait_a_slice(lock)) {
            --left;
            note_silence();
            continue;
        }
        note_answer();
        // The earlier request may have been for a picture of another kind.
        if (shared_->request.pointer == request.pointer)
            return shared_->image;
        shared_->hand_over(request);
    }
    return std::nullopt;
}

void PatientSource::note_silence()
{
    const bool known = silent_ms_ >= worth_a_word_ms;
    silent_ms_ += static_cast<uint32_t>(slice.count());
    counters().display_silent_ms.store(silent_ms_, std::memory_order_relaxed);
    if (!known && silent_ms_ >= worth_a_word_ms)
        HOST_LOGW("%s does not answer: pictures are missing until it does.", name_.c_str());
}

void PatientSource::note_answer()
{
    if (silent_ms_ == 0)
        return;
    if (silent_ms_ >= worth_a_word_ms)
        HOST_LOGW("%s answers again, after %u s.", name_.c_str(), silent_ms_ / 1000);
    silent_ms_ = 0;
    counters().display_silent_ms.store(0, std::memory_order_relaxed);
}

} // namespace zu3host
