#include "machine/sound_sources.h"

#include <memory>
#include <pulse/pulseaudio.h>

#include <audio/pulse_library.h>

namespace client {
namespace {

/** A connection to the sound server, run by this thread and only for so long. */
class SoundServer {
public:
    SoundServer()
        : loop_(pa_mainloop_new(), pa_mainloop_free),
          context_(loop_ ? pa_context_new(pa_mainloop_get_api(loop_.get()), "screenrecord")
                         : nullptr,
                   pa_context_unref)
    {
    }
    ~SoundServer()
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

    /** of 50 ms that may pass without a word of the server, 3 s in all */
    int quiet_slices_ = 60;
    /** and its words do not keep us for ever */
    int rounds_ = 400;
    std::unique_ptr<pa_mainloop, decltype(&pa_mainloop_free)> loop_;
    std::unique_ptr<pa_context, decltype(&pa_context_unref)> context_;
};

/** A server may leave a text out. */
std::string text(const char* given)
{
    return given ? given : "";
}

void add_source(pa_context*, const pa_source_info* info, int end, void* list)
{
    if (end == 0 && info)
        static_cast<std::vector<SoundSource>*>(list)->push_back(
            {.name = text(info->name),
             .description = text(info->description),
             .sample_rate = info->sample_spec.rate,
             .channels = info->sample_spec.channels});
}

void take_default_output(pa_context*, const pa_server_info* info, void* name)
{
    if (info && info->default_sink_name)
        *static_cast<std::string*>(name) = info->default_sink_name;
}

} // namespace

std::optional<std::vector<SoundSource>> list_sound_sources()
{
    if (!zu3host::load_pulse_library().empty())
        return std::nullopt;
    SoundServer server;
    std::vector<SoundSource> sources;
    std::string output;
    if (!server.connect() ||
        !server.complete(pa_context_get_source_info_list(server.context(), add_source, &sources)) ||
        !server.complete(
            pa_context_get_server_info(server.context(), take_default_output, &output)))
        return std::nullopt;
    for (SoundSource& source : sources)
        source.recorded = source.name == output + ".monitor";
    return sources;
}

} // namespace client
