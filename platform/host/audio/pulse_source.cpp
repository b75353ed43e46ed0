#include "audio/pulse_module.h"
#include "audio/sound_choice.h"
#include "audio/sound_placement.h"
#include "audio/sound_source.h"
#include "base/border.h"
#include "base/host_log.h"
#include "base/threads.h"
#include "statistics/counters.h"
#include "utils/private_module.h"

#include <algorithm>
#include <atomic>
#include <common/clock.h>
#include <common/never_destroyed.h>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <zu3_host/sound_sources.h>

namespace zu3host {

namespace {

/**
 * A server that sends nothing for this long has no sound, or sleeps, so silence is filled in. In
 * the middle of sound the machine is probably busy, and the late sound is worth a longer wait.
 */
constexpr int64_t patience_us = 300'000;
constexpr int64_t patience_in_sound_us = 1'000'000;
/** At least so often the listener looks whether there is anything to read. */
constexpr int64_t look_us = 100'000;
/**
 * Silence must not replace sound that waits in the socket: after this process was stopped or not
 * scheduled, that sound is read first. No reader needs older sound than this.
 */
constexpr int64_t greatest_backlog_us = 2'000'000;
constexpr int64_t retry_us = 3'000'000;
/** After a loss a server may be back at once, e.g. with another output. */
constexpr int64_t first_retry_us = 250'000;

/** A server that is quiet for this long is asked for an answer: a sleeping source sends nothing. */
constexpr int64_t ask_us = 1'000'000;
/** A server that is quiet for this long hangs; libpulse waits for an answer for 30 s. */
constexpr int64_t hang_us = 3'000'000;

constexpr char listening[] = "Listening to the sound server";

class PulseSource final : public SoundSource, private PulseListener {
public:
    PulseSource(SharedTimeline& shared, const PulseModule& module, WantedSource wanted,
                bool reports_server)
        : shared_(shared), wanted_(std::move(wanted)), reports_server_(reports_server),
          loop_(module.make_loop())
    {
        if (!loop_)
            throw std::bad_alloc();
        thread_ = start_thread("zu3-sound", [this] { run(); });
    }
    ~PulseSource() override
    {
        stopping_.store(true, std::memory_order_release);
        loop_->wake_up();
        thread_.join();
    }

    void advance(SoundTimeline& timeline, int64_t now_us) override
    {
        const int64_t patience =
            placement_.continues(timeline) ? patience_in_sound_us : patience_us;
        const int64_t looked_us =
            std::clamp(nothing_came_until_us_, now_us - greatest_backlog_us, now_us);
        timeline.append_silence_until(live_ ? looked_us - patience : now_us);
    }

private:
    void connected() noexcept override
    {
        if (reported_ || absent_)
            HOST_LOGI("Recording the sound of %s.", called(wanted_));
        reported_ = absent_ = false;
        was_connected_ = true;
        set_live(true);
    }
    void absent() noexcept override
    {
        if (!absent_)
            HOST_LOGW(
                "The sound server does not offer the sound of %s; recording silence until it does.",
                called(wanted_));
        absent_ = true;
        reported_ = false;
        was_connected_ = true;
        set_live(false);
    }
    void heard(const int16_t* samples, int64_t frames, int64_t heard_us) noexcept override
    {
        at_border(listening, false, [&] {
            const std::lock_guard lock(shared_.mutex);
            placement_.place(shared_.timeline, samples, frames, heard_us);
            return true;
        });
    }

    bool stopping() const { return stopping_.load(std::memory_order_acquire); }
    void run();
    bool listen();
    bool pass(int64_t us);
    bool iterate(int timeout_us);
    void note_look(int64_t begin_us, int events);
    void look_for_hang();
    void set_live(bool live);
    void report(const char* failure);

    SharedTimeline& shared_;
    const WantedSource wanted_;
    const bool reports_server_;
    // under the timeline's lock
    bool live_ = false;
    // under the timeline's lock; the socket was empty then
    int64_t nothing_came_until_us_ = 0;
    // under the timeline's lock
    SoundPlacement placement_;
    // of the thread, as is what follows
    bool was_connected_ = false;
    bool reported_ = false;
    bool absent_ = false;
    bool hangs_ = false;
    bool asked_ = false;
    // waited for the server since its last message
    int64_t quiet_us_ = 0;
    const std::unique_ptr<PulseLoop> loop_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

void PulseSource::run()
{
    bool usable = true;
    while (usable && !stopping()) {
        was_connected_ = false;
        usable = at_border(listening, true, [this] { return listen(); }) &&
                 pass(was_connected_ ? first_retry_us : retry_us);
    }
    if (!usable)
        HOST_LOGE("The main loop of the sound server's library failed; recording silence.");
}

/** Until the connection fails; false when the main loop itself is broken. */
bool PulseSource::listen()
{
    struct Disconnect {
        PulseLoop& loop;
        ~Disconnect() { loop.disconnect(); }
    } const at_the_end{*loop_};
    loop_->connect(*this, wanted_);
    hangs_ = false;
    quiet_us_ = 0;
    bool usable = true;
    while (usable && !stopping() && !loop_->failure()) {
        usable = iterate(look_us);
        look_for_hang();
    }
    set_live(false);
    if (loop_->failure() && !stopping())
        report(loop_->failure());
    return usable;
}

/** Waits; false when the main loop is broken. */
bool PulseSource::pass(int64_t us)
{
    const int64_t until = common::monotonic_us() + us;
    bool usable = true;
    for (int64_t left = us; usable && left > 0 && !stopping();
         left = until - common::monotonic_us())
        usable = iterate(static_cast<int>(left));
    return usable;
}

/** Waits for one event and handles it; false when the main loop is broken. */
bool PulseSource::iterate(int timeout_us)
{
    if (loop_->prepare(timeout_us) < 0)
        return false;
    // The preparation swallows a wakeup, so that a stop before it shows here only; a later one
    // wakes the poll. A prepared loop then stays so, since nothing iterates any more.
    if (stopping())
        return true;
    const int64_t begin_us = common::monotonic_us();
    const int events = loop_->poll();
    note_look(begin_us, events);
    return events >= 0 && loop_->dispatch() >= 0;
}

/**
 * When the socket was seen to be empty: at the end of a poll without events, or before one that had
 * to wait.
 */
void PulseSource::note_look(int64_t begin_us, int events)
{
    constexpr int64_t at_once_us = 1000;
    const int64_t end_us = common::monotonic_us();
    // a longer wait is one of a stopped process
    quiet_us_ = events == 0 ? quiet_us_ + std::min(end_us - begin_us, look_us) : 0;
    const std::lock_guard lock(shared_.mutex);
    if (events == 0)
        nothing_came_until_us_ = end_us;
    else if (end_us - begin_us > at_once_us)
        nothing_came_until_us_ = begin_us;
}

/** A hung server keeps its connection. */
void PulseSource::look_for_hang()
{
    if (!std::exchange(asked_, quiet_us_ >= ask_us) && asked_)
        loop_->ask();
    const bool hangs = quiet_us_ >= hang_us;
    if (hangs && !hangs_)
        report("no answer for 3 s");
    if (hangs_ && !hangs) {
        HOST_LOGI("The sound server answers again.");
        reported_ = false;
    }
    hangs_ = hangs;
}

void PulseSource::set_live(bool live)
{
    const std::lock_guard lock(shared_.mutex);
    live_ = live;
    placement_.restart();
}

void PulseSource::report(const char* failure)
{
    if (was_connected_)
        counters().sound_lost.store(1, std::memory_order_relaxed);
    if (!reported_ && reports_server_ && was_connected_)
        HOST_LOGW("The sound server went away (%s); recording silence until it is back.", failure);
    else if (!reported_ && reports_server_)
        HOST_LOGW(
            "No sound server answers (%s); recording silence. ZU3_AUDIO=silence does so without this warning.",
            failure);
    reported_ = true;
}

} // namespace

const PulseModule* load_pulse_module(const char*& failure)
{
    static common::NeverDestroyed<PrivateModule> loaded(ZU3_PULSE_MODULE, pulse_module_entry);
    static const PulseModule* const module =
        loaded->entry ? reinterpret_cast<PulseModuleEntry>(loaded->entry)() : nullptr;
    failure = loaded->failure.c_str();
    return module;
}

std::unique_ptr<SoundSource> open_pulse_source(SharedTimeline& shared, const PulseModule& module,
                                               const WantedSource& wanted, bool reports_server)
{
    return std::make_unique<PulseSource>(shared, module, wanted, reports_server);
}

namespace {

int tell_sources(zu3_host_sound_source_receiver_t receiver, void* user)
{
    const char* failure = nullptr;
    const PulseModule* const module = load_pulse_module(failure);
    std::vector<PulseSourceInfo> sources;
    if (!receiver || !module || !module->list_sources(sources))
        return -1;
    for (const PulseSourceInfo& source : sources) {
        const zu3_host_sound_source_t told{source.name.c_str(),       source.description.c_str(),
                                           source.sample_rate,        source.channels,
                                           source.recorded ? 1u : 0u, source.microphone ? 1u : 0u};
        receiver(&told, user);
    }
    return static_cast<int>(sources.size());
}

} // namespace

} // namespace zu3host

HOST_EXPORT int zu3_host_sound_sources(zu3_host_sound_source_receiver_t receiver, void* user)
{
    return zu3host::at_border(__func__, -1, [=] { return zu3host::tell_sources(receiver, user); });
}
