#include "machine/host.h"

#include <dlfcn.h>

#include <zu3_host/sound_sources.h>

namespace client {
namespace {

template <typename Function> Function* find(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_DEFAULT, name));
}

std::optional<zu3_host_statistics_t> read_statistics()
{
    static const auto read = find<decltype(zu3_host_statistics)>("zu3_host_statistics");
    if (!read)
        return std::nullopt;
    zu3_host_statistics_t statistics = {};
    read(&statistics, sizeof statistics);
    return statistics;
}

constexpr uint64_t zu3_host_statistics_t::*counters[] = {
    &zu3_host_statistics_t::pictures_due,
    &zu3_host_statistics_t::pictures_captured,
    &zu3_host_statistics_t::pictures_dropped_late,
    &zu3_host_statistics_t::pictures_dropped_no_buffer,
    &zu3_host_statistics_t::pictures_dropped_no_display,
    &zu3_host_statistics_t::pictures_encoded,
    &zu3_host_statistics_t::pictures_refused,
    &zu3_host_statistics_t::bytes_encoded,
    &zu3_host_statistics_t::access_units_multiplexed,
    &zu3_host_statistics_t::multiplexer_busy,
    &zu3_host_statistics_t::bytes_multiplexed,
    &zu3_host_statistics_t::bytes_copied_out,
    &zu3_host_statistics_t::bytes_written,
    &zu3_host_statistics_t::write_failures,
    &zu3_host_statistics_t::audio_bytes_lost,
    &zu3_host_statistics_t::audio_frames_encoded,
    &zu3_host_statistics_t::pictures_left_out_for_room,
    &zu3_host_statistics_t::pictures_coarsened,
};

void add_source(const zu3_host_sound_source_t* source, void* list)
{
    static_cast<std::vector<SoundSource>*>(list)->push_back(
        {.name = source->name,
         .description = source->description,
         .sample_rate = source->sample_rate,
         .channels = source->channels,
         .recorded = source->recorded != 0,
         .microphone = source->microphone != 0});
}

void keep_screen(const zu3_host_screen_t* screen, void* kept)
{
    *static_cast<HostScreen*>(kept) = {.source = screen->source,
                                       .width = screen->width,
                                       .height = screen->height,
                                       .refresh_hz = screen->refresh_mhz / 1000.0,
                                       .name = screen->name,
                                       .problem = screen->problem};
}

void add_output(const zu3_host_output_t* output, void* list)
{
    static_cast<std::vector<HostOutput>*>(list)->push_back(
        {.name = output->name,
         .description = output->description,
         .width = output->width,
         .height = output->height,
         .scale = output->scale_thousandths / 1000.0,
         .degrees = output->degrees,
         .mirrored = output->mirrored != 0,
         .refresh_hz = output->refresh_mhz / 1000.0,
         .recorded = output->recorded != 0});
}

void add_finding(uint32_t kind, const char* sentence, void* list)
{
    static_cast<std::vector<HostFinding>*>(list)->push_back({kind, sentence});
}

} // namespace

zu3_host_statistics_t statistics_since(const zu3_host_statistics_t& before,
                                       zu3_host_statistics_t now)
{
    for (const auto counter : counters)
        now.*counter -= before.*counter;
    now.display_lost = now.display_lost && !before.display_lost;
    now.sound_lost = now.sound_lost && !before.sound_lost;
    return now;
}

StatisticsDelta::StatisticsDelta() : before_(read_statistics()) {}

std::optional<zu3_host_statistics_t> StatisticsDelta::read() const
{
    const auto now = read_statistics();
    if (!now || !before_)
        return std::nullopt;
    return statistics_since(*before_, *now);
}

int frame_event()
{
    static const auto event = find<decltype(zu3_host_frame_event)>("zu3_host_frame_event");
    return event ? event() : -1;
}

void give_up_writes()
{
    static const auto give_up = find<decltype(zu3_host_give_up_writes)>("zu3_host_give_up_writes");
    if (give_up)
        give_up();
}

void give_up_display()
{
    static const auto give_up =
        find<decltype(zu3_host_give_up_display)>("zu3_host_give_up_display");
    if (give_up)
        give_up();
}

bool want_exact_size(uint32_t width, uint32_t height)
{
    static const auto want = find<decltype(zu3_host_exact_size)>("zu3_host_exact_size");
    if (want)
        want(width, height);
    return want;
}

void listen_to_host_log(zu3_host_log_listener_t listener)
{
    static const auto listen = find<decltype(zu3_host_listen_to_log)>("zu3_host_listen_to_log");
    if (listen)
        listen(listener);
}

bool want_quality(uint32_t quality, uint32_t ceiling)
{
    static const auto want = find<decltype(zu3_host_quality)>("zu3_host_quality");
    if (want)
        want(quality, ceiling / 1000);
    return want;
}

bool want_bit_rate(uint32_t rate)
{
    static const auto want = find<decltype(zu3_host_bit_rate)>("zu3_host_bit_rate");
    if (want)
        want(rate / 1000);
    return want;
}

void want_rare_key_frames()
{
    static const auto want = find<decltype(zu3_host_rare_key_frames)>("zu3_host_rare_key_frames");
    if (want)
        want();
}

uint64_t due_time_of_frame(uint64_t pts_us)
{
    static const auto time = find<decltype(zu3_host_due_time)>("zu3_host_due_time");
    const uint64_t due = time ? time(pts_us) : 0;
    return due != 0 ? due : pts_us;
}

uint64_t time_of_sound()
{
    static const auto time = find<decltype(zu3_host_sound_time)>("zu3_host_sound_time");
    return time ? time() : 0;
}

const char* platform_sentence()
{
    static const auto sentence = find<decltype(zu3_host_platform)>("zu3_host_platform");
    return sentence ? sentence() : nullptr;
}

std::optional<std::vector<SoundSource>> list_sound_sources()
{
    static const auto list = find<decltype(zu3_host_sound_sources)>("zu3_host_sound_sources");
    std::vector<SoundSource> sources;
    if (!list || list(add_source, &sources) < 0)
        return std::nullopt;
    return sources;
}

std::optional<HostScreen> open_screen()
{
    static const auto open = find<decltype(zu3_host_screen)>("zu3_host_screen");
    if (!open)
        return std::nullopt;
    HostScreen screen;
    if (open(keep_screen, &screen) != 0 && screen.problem.empty())
        screen.problem = "the log says why";
    return screen;
}

std::vector<HostOutput> list_outputs()
{
    static const auto list = find<decltype(zu3_host_outputs)>("zu3_host_outputs");
    std::vector<HostOutput> outputs;
    if (list)
        list(add_output, &outputs);
    return outputs;
}

uint32_t examine_screen(std::vector<HostFinding>& findings)
{
    static const auto examine = find<decltype(zu3_host_examine_screen)>("zu3_host_examine_screen");
    return examine ? examine(add_finding, &findings) : uint32_t{ZU3_HOST_SCREEN_X11};
}

} // namespace client
