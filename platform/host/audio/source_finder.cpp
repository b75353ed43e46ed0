#include "audio/source_finder.h"

#include "base/border.h"

#include <algorithm>
#include <utility>

namespace zu3host {

namespace {

constexpr pa_usec_t retry_us = 1'000'000;

/** "" for a text that the server left out. */
std::string text(const char* given)
{
    return given ? given : "";
}

/** Runs an action within a callback of libpulse; drops it if memory runs out. */
template <typename Action> void within_callback(Action action)
{
    answer_or(
        false,
        [&] {
            action();
            return true;
        },
        [](const char*) {});
}

} // namespace

PulseSourceInfo described(const pa_source_info& source)
{
    return {.name = text(source.name),
            .description = text(source.description),
            .sample_rate = source.sample_spec.rate,
            .channels = source.sample_spec.channels,
            .monitor_of =
                source.monitor_of_sink == PA_INVALID_INDEX ? "" : text(source.monitor_of_sink_name),
            .recorded = false,
            .microphone = false};
}

const PulseSourceInfo* microphone_among(const std::vector<PulseSourceInfo>& sources,
                                        const std::string& default_source)
{
    const PulseSourceInfo* first = nullptr;
    for (const PulseSourceInfo& source : sources) {
        if (!source.monitor_of.empty())
            continue;
        if (source.name == default_source)
            return &source;
        first = first ? first : &source;
    }
    return first;
}

const PulseSourceInfo* desktop_among(const std::vector<PulseSourceInfo>& sources,
                                     const std::string& default_output)
{
    const auto found = std::find_if(sources.begin(), sources.end(), [&](const auto& each) {
        return !each.monitor_of.empty() && each.monitor_of == default_output;
    });
    return found == sources.end() ? nullptr : &*found;
}

SourceFinder::SourceFinder(pa_mainloop_api* api, pa_context* context, WantedSource wanted,
                           Found found)
    : api_(api), context_(context), wanted_(std::move(wanted)), found_(std::move(found))
{
    pa_context_set_subscribe_callback(context_, changed, this);
    const int mask = PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SERVER;
    if (pa_operation* const asked = pa_context_subscribe(
            context_, static_cast<pa_subscription_mask_t>(mask), nullptr, nullptr))
        pa_operation_unref(asked);
    look();
}

// Disconnecting the context cancels the queries.
SourceFinder::~SourceFinder()
{
    pa_context_set_subscribe_callback(context_, nullptr, nullptr);
    stop_waiting();
}

void SourceFinder::changed(pa_context*, pa_subscription_event_type_t, uint32_t, void* self)
{
    static_cast<SourceFinder*>(self)->look();
}

void SourceFinder::waited(pa_mainloop_api*, pa_time_event*, const timeval*, void* self)
{
    auto& finder = *static_cast<SourceFinder*>(self);
    finder.stop_waiting();
    finder.look();
}

void SourceFinder::stop_waiting()
{
    if (waiting_)
        api_->time_free(std::exchange(waiting_, nullptr));
}

void SourceFinder::lost()
{
    decided_ = false;
    stop_waiting();
    waiting_ = pa_context_rttime_new(context_, pa_rtclock_now() + retry_us, waited, this);
}

void SourceFinder::look()
{
    again_ = looking_;
    if (looking_)
        return;
    looking_ = true;
    default_source_.clear();
    default_output_.clear();
    sources_.clear();
    ask(pa_context_get_server_info(context_, take_defaults, this));
    ask(pa_context_get_source_info_list(context_, take_source, this));
}

void SourceFinder::ask(pa_operation* question)
{
    if (question)
        pa_operation_unref(question);
    else
        looking_ = false;
}

void SourceFinder::take_defaults(pa_context*, const pa_server_info* info, void* self)
{
    auto& finder = *static_cast<SourceFinder*>(self);
    if (info)
        within_callback([&] {
            finder.default_source_ = text(info->default_source_name);
            finder.default_output_ = text(info->default_sink_name);
        });
}

void SourceFinder::take_source(pa_context*, const pa_source_info* info, int end, void* self)
{
    auto& finder = *static_cast<SourceFinder*>(self);
    if (end == 0 && info)
        within_callback([&] { finder.sources_.push_back(described(*info)); });
    if (end == 0)
        return;
    finder.looking_ = false;
    if (end > 0 && !finder.again_)
        within_callback([&] { finder.decide(); });
    if (finder.again_)
        finder.look();
}

std::string SourceFinder::wanted_name() const
{
    if (wanted_.kind == WantedSource::Kind::named) {
        const bool there =
            std::any_of(sources_.begin(), sources_.end(),
                        [this](const PulseSourceInfo& each) { return each.name == wanted_.name; });
        return there ? wanted_.name : "";
    }
    const PulseSourceInfo* const found = wanted_.kind == WantedSource::Kind::desktop
                                             ? desktop_among(sources_, default_output_)
                                             : microphone_among(sources_, default_source_);
    return found ? found->name : "";
}

void SourceFinder::decide()
{
    std::string name = wanted_name();
    if (decided_ && name == current_)
        return;
    decided_ = true;
    current_ = std::move(name);
    found_(std::string(current_));
}

} // namespace zu3host
