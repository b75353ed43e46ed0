#include "encoder/x264_parameters.h"

#include "base/host_log.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>

namespace zu3host {
namespace {

// some of x264's warnings come with every picture
constexpr unsigned most_messages = 8;

// Constant quality at which text on a screen stays sharp: x264's default with a preset, and the
// rate factor with about the same number of bits with the settings for screens.
constexpr float quality_of_presets = 23.0f;
constexpr float quality_of_screens = 22.0f;
constexpr float film_beyond_screens = quality_of_presets - quality_of_screens;

// Limits of the bits spent ahead of the rate. With a given rate the limit is low, since it also
// determines how fast x264 follows a new one, but sufficient for a few pictures.
constexpr double seconds_ahead_of_rate = 0.25;
constexpr double seconds_ahead_of_ceiling = 0.5;
constexpr double least_pictures_ahead = 4;
// Keeps frames below 2 MiB, which the library cannot deliver.
constexpr double most_kilobits_ahead = 15'000;

// Slices cost bits and computing time, so there are only as many threads as the pictures need: a
// core of 2015 encodes more than twice this many pixels in a second with the default preset.
constexpr uint64_t pixels_per_thread_and_second = 30'000'000;
constexpr uint64_t most_threads = 4;

// a player decodes up to this much at a seek
constexpr uint32_t seconds_between_key_frames = 2;

// ISO/IEC 14496-10 tables E-3 to E-5: BT.601, 525 lines
constexpr int smpte_170m = 6;

/** The preset named in the environment; null without one. */
const char* preset_from_environment()
{
    const char* name = secure_getenv("ZU3_X264_PRESET");
    if (!name || !*name)
        return nullptr;
    for (const char* const* known = x264_preset_names; *known; ++known)
        if (std::strcmp(*known, name) == 0)
            return *known;
    HOST_LOGW("ZU3_X264_PRESET is not a preset of x264 (\"%s\") and is ignored", name);
    return nullptr;
}

/**
 * Changes preset veryfast for the content of screens. bench_settings measured the same or better
 * pictures at equal bits in two thirds of the time (docs/measurements/x264_settings.md).
 */
void set_for_screens(x264_param_t& parameters)
{
    // Content on a screen moves by whole pixels, so sub-pixel search is off; but a scrolled page
    // or a dragged window moves far at once.
    parameters.analyse.i_subpel_refine = 0;
    parameters.analyse.i_me_method = X264_ME_UMH;
    parameters.analyse.i_me_range = 24;
    // Content stays in the picture, so bits that sharpen it at first are well spent.
    parameters.rc.f_qcompress = 0.8f;
    // Flat areas next to text need few bits, so little is taken from the text for them.
    parameters.rc.f_aq_strength = 0.65f;
    parameters.i_deblocking_filter_alphac0 = 1;
}

std::optional<int> number_from_environment(const char* name, int least, int most)
{
    const char* text = secure_getenv(name);
    if (!text || !*text)
        return std::nullopt;
    int value = 0;
    const char* end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, value);
    if (error == std::errc{} && stop == end && value >= least && value <= most)
        return value;
    HOST_LOGW("%s is not a number from %d to %d (\"%s\") and is ignored", name, least, most, text);
    return std::nullopt;
}

int threads_for(const EncoderSettings& settings)
{
    const uint64_t pixels =
        uint64_t{settings.size.width} * settings.size.height * settings.frame_rate;
    const uint64_t cores =
        std::clamp<uint64_t>(std::thread::hardware_concurrency(), 1, most_threads);
    return static_cast<int>(std::min(pixels / pixels_per_thread_and_second + 1, cores));
}

void set_colours(x264_param_t& parameters)
{
    parameters.vui.b_fullrange = 0;
    parameters.vui.i_colorprim = smpte_170m;
    parameters.vui.i_transfer = smpte_170m;
    parameters.vui.i_colmatrix = smpte_170m;
}

void set_stream_form(x264_param_t& parameters)
{
    parameters.b_annexb = 1;
    parameters.b_aud = 1;
    parameters.b_repeat_headers = 1;
    parameters.b_open_gop = 0;
    parameters.i_nal_hrd =
        // a rate that changes in mid-stream would make its promise false
        X264_NAL_HRD_NONE;
}

void set_timing(x264_param_t& parameters, uint32_t frame_rate)
{
    parameters.b_vfr_input = 0;
    parameters.i_fps_num = frame_rate;
    parameters.i_fps_den = 1;
    parameters.i_timebase_num = 1;
    parameters.i_timebase_den = frame_rate;
}

// The encoder requests each key frame, so x264's own come later than that. x264 alone detects scene
// cuts, as with the usual distance.
void set_key_frames(x264_param_t& parameters, int distance, bool is_preset)
{
    parameters.i_keyint_max = is_preset ? distance : 2 * distance;
    if (!is_preset)
        parameters.i_keyint_min = std::max(distance / 10, 1);
}

void set_profile_and_level(x264_param_t& parameters, uint32_t profile, uint32_t level)
{
    x264_param_apply_profile(&parameters, profile == 66   ? "baseline"
                                          : profile == 77 ? "main"
                                                          : "high");
    if (level != 0)
        // 9 is x264's level 1b
        parameters.i_level_idc = level == 101 ? 9 : static_cast<int>(level / 10);
}

/** Rate factor of constant quality. */
float quality_for(const EncoderSettings& settings, Content content, bool is_preset)
{
    const float asked = static_cast<float>(settings.quality);
    if (is_preset)
        return settings.quality != 0 ? asked : quality_of_presets;
    return (settings.quality != 0 ? asked : quality_of_screens) +
           (content == Content::film ? film_beyond_screens : 0);
}

} // namespace

void X264Log::write(void* self, int level, const char* format, va_list arguments)
{
    auto& log = *static_cast<X264Log*>(self);
    const bool is_message = level <= X264_LOG_WARNING;
    if (is_message && log.written_.fetch_add(1, std::memory_order_relaxed) >= most_messages)
        return;
    if (!is_message && std::strncmp(format, "frame=", 6) != 0)
        return;
    char line[256];
    std::vsnprintf(line, sizeof(line), format, arguments);
    if (!is_message)
        return log.note_picture(line);
    line[std::strcspn(line, "\n")] = '\0';
    __android_log_print(level <= X264_LOG_ERROR ? ANDROID_LOG_ERROR : ANDROID_LOG_WARN, "zu3",
                        "x264: %s", line);
}

// "frame=  12 QP=20.31 NAL=2 Slice:P Poc:24  I:3    P:120  SKIP:3477 size=913 bytes"
void X264Log::note_picture(const char* line)
{
    const char* const quantizer = std::strstr(line, "QP=");
    const char* const counts = std::strstr(line, " I:");
    MacroblockCounts found;
    if (quantizer)
        quantizer_ = std::strtod(quantizer + 3, nullptr);
    if (counts &&
        std::sscanf(counts, " I:%u P:%u SKIP:%u", &found.intra, &found.inter, &found.skipped) == 3)
        counts_ = found;
}

uint32_t key_frame_distance(const EncoderSettings& settings)
{
    const int distance = static_cast<int>(seconds_between_key_frames * settings.frame_rate);
    return static_cast<uint32_t>(
        number_from_environment("ZU3_X264_KEYINT", 1, 1 << 20).value_or(distance));
}

bool settings_follow_content()
{
    return !preset_from_environment();
}

x264_param_t x264_parameters_of(const EncoderSettings& settings, Content content, X264Log& log)
{
    x264_param_t parameters;
    const char* preset = preset_from_environment();
    x264_param_default_preset(&parameters, preset ? preset : "veryfast", "zerolatency");
    // makes the parameter sets independent of the content
    parameters.b_stitchable = !preset;
    if (!preset && content == Content::screens)
        set_for_screens(parameters);
    parameters.rc.f_rf_constant = quality_for(settings, content, preset != nullptr);
    parameters.pf_log = &X264Log::write;
    parameters.p_log_private = &log;
    parameters.i_log_level = preset ? X264_LOG_WARNING : X264_LOG_DEBUG;
    parameters.i_csp = X264_CSP_NV12;
    parameters.i_width = static_cast<int>(settings.size.width);
    parameters.i_height = static_cast<int>(settings.size.height);
    parameters.i_threads =
        number_from_environment("ZU3_X264_THREADS", 1, 16).value_or(threads_for(settings));
    set_colours(parameters);
    set_stream_form(parameters);
    set_timing(parameters, settings.frame_rate);
    set_key_frames(parameters, static_cast<int>(key_frame_distance(settings)), preset != nullptr);
    set_rate(parameters, settings.rate);
    set_profile_and_level(parameters, settings.profile, settings.level);
    HOST_LOGI("The encoder uses x264's %s, %d thread%s, a key frame every %d pictures",
              preset ? preset
              : content == Content::film
                  ? "settings for film (docs/measurements/content.md)"
                  : "settings for screens (docs/measurements/x264_settings.md)",
              parameters.i_threads, parameters.i_threads == 1 ? "" : "s",
              static_cast<int>(key_frame_distance(settings)));
    return parameters;
}

void leave_out_unused(x264_param_t& parameters, Content content, bool changes_little)
{
    if (content != Content::screens || !settings_follow_content())
        return;
    // Letters are smaller than 8x8 pixels.
    parameters.analyse.b_transform_8x8 = 0;
    // The filter costs time for every macroblock, even if x264 skips them all, and it would change
    // the same edges to and fro while x264 refines a still picture.
    parameters.b_deblocking_filter = !changes_little;
}

void set_rate(x264_param_t& parameters, EncoderRate rate)
{
    parameters.rc.i_rc_method = rate.as_needed ? X264_RC_CRF : X264_RC_ABR;
    parameters.rc.i_bitrate = rate.kilobits;
    const double seconds =
        std::max(rate.as_needed ? seconds_ahead_of_ceiling : seconds_ahead_of_rate,
                 least_pictures_ahead * parameters.i_fps_den / parameters.i_fps_num);
    const double ahead = std::min(rate.kilobits * seconds, most_kilobits_ahead);
    parameters.rc.i_vbv_buffer_size = std::max(static_cast<int>(ahead), 1);
    // no more in an average picture than in the largest one
    const double most = most_kilobits_ahead * parameters.i_fps_num / parameters.i_fps_den;
    parameters.rc.i_vbv_max_bitrate =
        static_cast<int>(std::min(static_cast<double>(rate.kilobits), most));
}

} // namespace zu3host
