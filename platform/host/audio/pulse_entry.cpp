// The module libzu3_pulse.so: all that calls libpulse, behind one entry.
#include "audio/pulse_module.h"

#include "audio/pulse_connection.h"
#include "audio/source_finder.h"
#include "base/border.h"

#include <memory>
#include <new>
#include <optional>
#include <pulse/pulseaudio.h>

namespace zu3host {

namespace {

struct FreeMainloop {
    void operator()(pa_mainloop* loop) const { pa_mainloop_free(loop); }
};
using Mainloop = std::unique_ptr<pa_mainloop, FreeMainloop>;

class Loop final : public PulseLoop {
public:
    explicit Loop(Mainloop loop) : loop_(std::move(loop)) {}

    void connect(PulseListener& listener, const WantedSource& wanted) override
    {
        connection_.emplace(loop_.get(), listener, wanted);
    }
    void disconnect() override { connection_.reset(); }
    const char* failure() const override { return connection_ ? connection_->failure() : nullptr; }
    void ask() override
    {
        if (connection_)
            connection_->ask();
    }
    int prepare(int timeout_us) override { return pa_mainloop_prepare(loop_.get(), timeout_us); }
    int poll() override { return pa_mainloop_poll(loop_.get()); }
    int dispatch() override { return pa_mainloop_dispatch(loop_.get()); }
    void wake_up() override { pa_mainloop_wakeup(loop_.get()); }

private:
    const Mainloop loop_;
    std::optional<PulseConnection> connection_;
};

std::unique_ptr<PulseLoop> make_loop()
{
    Mainloop loop(pa_mainloop_new());
    return loop ? std::make_unique<Loop>(std::move(loop)) : nullptr;
}

/** A connection to the sound server, run by this thread and only for so long. */
class Server {
public:
    Server()
        : loop_(pa_mainloop_new(), pa_mainloop_free),
          context_(loop_ ? pa_context_new(pa_mainloop_get_api(loop_.get()), "screenrecord")
                         : nullptr,
                   pa_context_unref)
    {
    }
    ~Server()
    {
        if (context_)
            pa_context_disconnect(context_.get());
    }

    bool connect()
    {
        if (!context_ ||
            pa_context_connect(context_.get(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
            return false;
        run_until(
            [&] { return ready() || !PA_CONTEXT_IS_GOOD(pa_context_get_state(context_.get())); });
        return ready();
    }

    /** Runs until the answer is complete; false when it did not come in time. */
    bool complete(pa_operation* asked)
    {
        const std::unique_ptr<pa_operation, decltype(&pa_operation_unref)> operation(
            asked, pa_operation_unref);
        if (operation)
            run_until(
                [&] { return pa_operation_get_state(operation.get()) != PA_OPERATION_RUNNING; });
        return operation && pa_operation_get_state(operation.get()) == PA_OPERATION_DONE;
    }

    pa_context* context() { return context_.get(); }

private:
    bool ready() const { return pa_context_get_state(context_.get()) == PA_CONTEXT_READY; }

    // In slices: when this process was stopped for all of the time, it reads what came before it
    // judges.
    template <typename Condition> void run_until(Condition reached)
    {
        for (; quiet_slices_ > 0 && rounds_ > 0 && !reached(); --rounds_) {
            constexpr int slice_us = 50'000;
            if (pa_mainloop_prepare(loop_.get(), slice_us) < 0)
                return;
            const int events = pa_mainloop_poll(loop_.get());
            if (events < 0 || pa_mainloop_dispatch(loop_.get()) < 0)
                return;
            quiet_slices_ -= events == 0;
        }
    }

    /** of 50 ms without a message of the server, 3 s in all */
    int quiet_slices_ = 60;
    /** limit of the server's messages */
    int rounds_ = 400;
    std::unique_ptr<pa_mainloop, decltype(&pa_mainloop_free)> loop_;
    std::unique_ptr<pa_context, decltype(&pa_context_unref)> context_;
};

void add_source(pa_context*, const pa_source_info* info, int end, void* list)
{
    const auto add = [=] {
        static_cast<std::vector<PulseSourceInfo>*>(list)->push_back(described(*info));
        return true;
    };
    if (end == 0 && info)
        answer_or(false, add, [](const char*) {});
}

struct Defaults {
    std::string output;
    std::string source;
};

void take_defaults(pa_context*, const pa_server_info* info, void* defaults)
{
    const auto keep = [=] {
        auto& kept = *static_cast<Defaults*>(defaults);
        kept.output = info->default_sink_name ? info->default_sink_name : "";
        kept.source = info->default_source_name ? info->default_source_name : "";
        return true;
    };
    if (info)
        answer_or(false, keep, [](const char*) {});
}

bool list_sources(std::vector<PulseSourceInfo>& sources)
{
    Server server;
    Defaults defaults;
    if (!server.connect() ||
        !server.complete(pa_context_get_source_info_list(server.context(), add_source, &sources)) ||
        !server.complete(pa_context_get_server_info(server.context(), take_defaults, &defaults)))
        return false;
    const PulseSourceInfo* const microphone = microphone_among(sources, defaults.source);
    const PulseSourceInfo* const desktop = desktop_among(sources, defaults.output);
    for (PulseSourceInfo& source : sources) {
        source.recorded = &source == desktop;
        source.microphone = &source == microphone;
    }
    return true;
}

} // namespace

} // namespace zu3host

extern "C" HOST_EXPORT const zu3host::PulseModule* zu3_pulse_module()
{
    static constexpr zu3host::PulseModule module{zu3host::make_loop, zu3host::list_sources};
    return &module;
}
