/**
 * Compares x264 settings on scenes of a screen and of films: CPU time, and picture quality at equal
 * bits.
 *
 * bench_settings [--scene NAME] [--from N] [--picture FILE.ppm] REFERENCE CANDIDATE...
 *
 * Settings are "PRESET[,KEY=VALUE...]"; each is tuned for zero latency, which
 * "bframes=3,rc-lookahead=10,mbtree=1" undoes. "ours" works like the host layer: its settings, which
 * follow the content, and mb_info for unchanged macroblocks. The reference encodes at constant
 * quality 23. For each candidate the program finds the quality at which a scene needs the same
 * number of bits (within 0.2 percent). Prints per scene the ratio of CPU times and the differences
 * in PSNR (dB, all planes) and SSIM (dB).
 * --from leaves the first N pictures out of bits, PSNR and SSIM.
 * --picture writes the middle picture of the scene and encodes nothing.
 */
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <utility>

#include <libyuv/convert_from_argb.h>
#include <x264.h>

#include "content_scenes.h"
#include "encoder/content_watch.h"
#include "encoder/unchanged_macroblocks.h"
#include "encoder/x264_parameters.h"
#include "screen_scenes.h"

namespace {

constexpr int fps = 30;
constexpr int pictures_of_screens = 90;
// Long enough for a change of settings and the key frame that it needs.
constexpr int pictures_of_films = 240;
constexpr double reference_quality = 23;
// --from
int first_counted = 0;
constexpr size_t luma_bytes = size_t{ScreenScene::width} * ScreenScene::height;
constexpr uint32_t mb_columns = ScreenScene::width / 16;
constexpr uint32_t mb_lines = ScreenScene::height / 16;

struct Picture {
    std::vector<uint8_t> nv12;
    // macroblocks that differ from those of the picture before
    std::vector<zu3host::PictureRectangle> changed;
};
using Scene = std::vector<Picture>;

struct Result {
    // seconds
    double cpu = 0;
    double bits = 0;
    // dB
    double psnr = 0;
    // dB: -10 log10(1 - SSIM)
    double ssim = 0;

    void add(double size, const x264_picture_t& out, size_t pictures)
    {
        if (size == 0 || out.i_pts < first_counted)
            return;
        pictures -= static_cast<size_t>(first_counted);
        bits += 8 * size;
        // Above about 50 dB differences are invisible.
        psnr += std::min(out.prop.f_psnr_avg, 60.0) / static_cast<double>(pictures);
        ssim += out.prop.f_ssim / static_cast<double>(pictures);
    }
};

double cpu_now()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

bool same_block(const Picture& one, const Picture& other, uint32_t column, uint32_t line)
{
    const auto same_rows = [&](size_t start, size_t rows) {
        for (size_t at = start; at < start + rows * ScreenScene::width; at += ScreenScene::width)
            if (std::memcmp(&one.nv12[at], &other.nv12[at], 16) != 0)
                return false;
        return true;
    };
    const size_t x = column * 16;
    return same_rows(size_t{line} * 16 * ScreenScene::width + x, 16) &&
           same_rows(luma_bytes + size_t{line} * 8 * ScreenScene::width + x, 8);
}

void find_changes(Picture& picture, const Picture& before)
{
    for (uint32_t line = 0; line < mb_lines; ++line)
        for (uint32_t column = 0; column < mb_columns; ++column)
            if (!same_block(picture, before, column, line))
                picture.changed.push_back({column * 16, line * 16, {16, 16}});
}

template <typename Source> Scene draw_pictures(Source source, int count)
{
    Scene scene;
    for (int number = 0; number < count; ++number) {
        Picture picture{std::vector<uint8_t>(luma_bytes * 3 / 2), {}};
        const auto* pixels = reinterpret_cast<const uint8_t*>(source.draw(number));
        libyuv::ARGBToNV12(pixels, ScreenScene::width * 4, picture.nv12.data(), ScreenScene::width,
                           picture.nv12.data() + luma_bytes, ScreenScene::width, ScreenScene::width,
                           ScreenScene::height);
        if (number > 0)
            find_changes(picture, scene.back());
        scene.push_back(std::move(picture));
    }
    return scene;
}

bool is_screen(const std::string& name)
{
    return std::ranges::find(ScreenScene::names, name) != ScreenScene::names.end();
}

Scene draw_scene(const std::string& name)
{
    return is_screen(name) ? draw_pictures(ScreenScene(name), pictures_of_screens)
                           : draw_pictures(ContentScene(name), pictures_of_films);
}

x264_param_t parameters_of(const std::string& settings, double quality)
{
    std::istringstream words(settings);
    std::string preset, word;
    std::getline(words, preset, ',');
    x264_param_t parameters;
    if (x264_param_default_preset(&parameters, preset.c_str(), "zerolatency") != 0)
        exit((fprintf(stderr, "bench_settings: no preset %s\n", preset.c_str()), 2));
    // x264 measures pictures only if its log level would print the result.
    parameters.i_log_level = X264_LOG_INFO;
    parameters.pf_log = [](void*, int, const char*, va_list) {};
    parameters.i_csp = X264_CSP_NV12;
    parameters.i_width = ScreenScene::width;
    parameters.i_height = ScreenScene::height;
    parameters.i_fps_num = fps;
    parameters.i_threads = 1;
    parameters.i_keyint_max = 2 * fps;
    while (std::getline(words, word, ',')) {
        const size_t equals = word.find('=');
        const std::string key = word.substr(0, equals), value = word.substr(equals + 1);
        if (x264_param_parse(&parameters, key.c_str(), value.c_str()) != 0)
            exit((fprintf(stderr, "bench_settings: x264 does not know %s\n", word.c_str()), 2));
    }
    parameters.rc.i_rc_method = X264_RC_CRF;
    parameters.rc.f_rf_constant = static_cast<float>(quality);
    return parameters;
}

x264_picture_t picture_of(Picture& picture, int64_t number)
{
    x264_picture_t in;
    x264_picture_init(&in);
    in.img = {X264_CSP_NV12,
              2,
              {ScreenScene::width, ScreenScene::width},
              {picture.nv12.data(), picture.nv12.data() + luma_bytes}};
    in.i_pts = number;
    return in;
}

struct Closer {
    void operator()(x264_t* encoder) const { x264_encoder_close(encoder); }
};
using Encoder = std::unique_ptr<x264_t, Closer>;

/** As X264Encoder, but at any quality, without a ceiling and repetitions, and measured. */
class OurEncoder {
public:
    OurEncoder(double quality, bool measured) : quality_(quality), measured_(measured) { open(); }

    int flush(x264_picture_t&) { return 0; }
    int encode(Picture& picture, int64_t number, x264_picture_t& out)
    {
        const bool key_due = since_key_ >= 2 * fps;
        const auto changed =
            number == 0 ? std::nullopt : zu3host::ChangedRectangles(picture.changed);
        const auto wanted = watch_.content(key_due, picture.nv12.data(), changed);
        if (wanted != content_ && since_key_ != 1) {
            content_ = wanted;
            open();
        }
        x264_picture_t in = picture_of(picture, number);
        in.i_type = key_due ? X264_TYPE_KEYFRAME : X264_TYPE_AUTO;
        in.prop.mb_info = unchanged_.find(changed);
        leave_out_unused(!key_due && unchanged_.almost_all());
        x264_nal_t* nals = nullptr;
        int count = 0;
        const int size = x264_encoder_encode(encoder_.get(), &nals, &count, &in, &out);
        const bool key = out.i_type == X264_TYPE_IDR;
        if (!key)
            watch_.note(log_.counts());
        since_key_ = key ? 1 : since_key_ + 1;
        return size;
    }

private:
    void open()
    {
        const zu3host::EncoderSettings settings{.size = {ScreenScene::width, ScreenScene::height},
                                                .layout = layout_,
                                                .frame_rate = fps,
                                                .rate = zu3host::EncoderRate::of(0),
                                                .profile = 0,
                                                .level = 0,
                                                .inject = false};
        x264_param_t parameters = zu3host::x264_parameters_of(settings, content_, log_);
        parameters.i_threads = 1;
        parameters.rc.i_vbv_max_bitrate = parameters.rc.i_vbv_buffer_size = 0;
        parameters.rc.f_rf_constant += static_cast<float>(quality_ - usual_quality);
        parameters.analyse.b_psnr = parameters.analyse.b_ssim = measured_;
        parameters.analyse.b_mb_info = 1;
        encoder_.reset(x264_encoder_open(&parameters));
        leave_out_unused(false);
    }

    void leave_out_unused(bool changes_little)
    {
        x264_param_t parameters;
        x264_encoder_parameters(encoder_.get(), &parameters);
        zu3host::leave_out_unused(parameters, content_, changes_little);
        x264_encoder_reconfig(encoder_.get(), &parameters);
    }

    // of zu3host::Content::screens
    static constexpr double usual_quality = 22;
    static constexpr zu3host::PictureLayout layout_ =
        zu3host::PictureLayout::of(ScreenScene::width, ScreenScene::height);
    const double quality_;
    const bool measured_;
    zu3host::X264Log log_;
    zu3host::UnchangedMacroblocks unchanged_{layout_};
    zu3host::ContentWatch watch_{fps, layout_};
    zu3host::Content content_ = zu3host::Content::screens;
    Encoder encoder_;
    int since_key_ = 0;
};

/** Of one encoder with one preset. */
class PlainEncoder {
public:
    PlainEncoder(x264_param_t parameters, bool measured)
    {
        parameters.analyse.b_psnr = parameters.analyse.b_ssim = measured;
        encoder_.reset(x264_encoder_open(&parameters));
    }

    /** The size of a picture that is still in the encoder; 0 without one. */
    int flush(x264_picture_t& out)
    {
        x264_nal_t* nals = nullptr;
        int count = 0;
        while (x264_encoder_delayed_frames(encoder_.get()) > 0)
            if (const int size = x264_encoder_encode(encoder_.get(), &nals, &count, nullptr, &out))
                return size;
        return 0;
    }
    int encode(Picture& picture, int64_t number, x264_picture_t& out)
    {
        x264_picture_t in = picture_of(picture, number);
        x264_nal_t* nals = nullptr;
        int count = 0;
        return x264_encoder_encode(encoder_.get(), &nals, &count, &in, &out);
    }

private:
    Encoder encoder_;
};

template <typename AnEncoder> Result encode_by(AnEncoder encoder, Scene& scene)
{
    Result result;
    const double before = cpu_now();
    for (size_t number = 0; number < scene.size(); ++number) {
        x264_picture_t out;
        const int size = encoder.encode(scene[number], static_cast<int64_t>(number), out);
        result.add(size, out, scene.size());
    }
    x264_picture_t last;
    for (int size = encoder.flush(last); size > 0; size = encoder.flush(last))
        result.add(size, last, scene.size());
    result.cpu = cpu_now() - before;
    result.ssim = -10 * std::log10(std::max(1 - result.ssim, 1e-9));
    return result;
}

/**
 * Encodes a scene. Measures the picture only if `measured`, because that costs time.
 */
Result encode(Scene& scene, const std::string& settings, double quality, bool measured)
{
    if (settings == "ours")
        return encode_by(OurEncoder(quality, measured), scene);
    return encode_by(PlainEncoder(parameters_of(settings, quality), measured), scene);
}

double quality_for(Scene& scene, const std::string& settings, double bits)
{
    double low = 5, high = 51;
    for (int step = 0; step < 14; ++step) {
        const double middle = (low + high) / 2;
        const double found = encode(scene, settings, middle, false).bits;
        if (std::abs(found / bits - 1) < 0.002)
            return middle;
        (found > bits ? low : high) = middle;
    }
    return high;
}

/**
 * Ratio of a candidate's CPU time to the reference's: the median of five ratios in alternating
 * turns, because a virtual machine's speed jumps by a third within ten seconds.
 */
double cpu_ratio(Scene& scene, const std::string& candidate, double quality,
                 const std::string& reference)
{
    std::array<double, 5> ratios;
    for (double& ratio : ratios) {
        const double before = encode(scene, reference, reference_quality, false).cpu;
        const double own = encode(scene, candidate, quality, false).cpu;
        ratio = 2 * own / (before + encode(scene, reference, reference_quality, false).cpu);
    }
    std::nth_element(ratios.begin(), ratios.begin() + 2, ratios.end());
    return ratios[2];
}

template <typename Source> int write_picture(Source scene, int number, const char* path)
{
    FILE* const file = fopen(path, "wb");
    if (!file) {
        perror(path);
        return 1;
    }
    fprintf(file, "P6 %d %d 255\n", ScreenScene::width, ScreenScene::height);
    const uint32_t* pixels = nullptr;
    for (int i = 0; i <= number; ++i)
        pixels = scene.draw(i);
    for (size_t i = 0; i < luma_bytes; ++i)
        for (int shift = 16; shift >= 0; shift -= 8)
            fputc(static_cast<int>(pixels[i] >> shift & 255), file);
    return fclose(file);
}

bool is_scene(const std::string& name)
{
    return is_screen(name) ||
           std::ranges::find(ContentScene::names, name) != ContentScene::names.end();
}

int show_usage()
{
    fputs(
        "usage: bench_settings [--scene NAME] [--from N] [--picture FILE.ppm] PRESET[,KEY=VALUE...]...\nscenes:",
        stderr);
    for (const char* name : ScreenScene::names)
        fprintf(stderr, " %s", name);
    for (const char* name : ContentScene::names)
        fprintf(stderr, " %s", name);
    fputs("\n", stderr);
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    // x264 warns in the host layer's log that it is not tuned for PSNR.
    setenv("ANDROID_LOG_TAGS", "zu3:S", 0);
    std::vector<std::string> scenes(ScreenScene::names.begin(), ScreenScene::names.end()), settings;
    scenes.insert(scenes.end(), ContentScene::names.begin(), ContentScene::names.end());
    const char* picture = nullptr;
    for (int i = 1; i < argc; ++i)
        if (!strcmp(argv[i], "--scene") && i + 1 < argc)
            scenes = {argv[++i]};
        else if (!strcmp(argv[i], "--from") && i + 1 < argc)
            first_counted = atoi(argv[++i]);
        else if (!strcmp(argv[i], "--picture") && i + 1 < argc)
            picture = argv[++i];
        else
            settings.emplace_back(argv[i]);
    if (!is_scene(scenes[0]) || (!picture && settings.empty()))
        return show_usage();
    if (picture)
        return is_screen(scenes[0])
                   ? write_picture(ScreenScene(scenes[0]), pictures_of_screens / 2, picture)
                   : write_picture(ContentScene(scenes[0]), 40, picture);
    // CPU of all scenes, relative to the reference
    std::map<std::string, double> total;
    for (const std::string& name : scenes) {
        Scene scene = draw_scene(name);
        const auto pictures = static_cast<double>(scene.size()) - first_counted;
        const Result reference = encode(scene, settings[0], reference_quality, true);
        printf("%s: %s %.0f kbit/s, %.2f dB, SSIM %.2f dB, %.2f ms a picture\n", name.c_str(),
               settings[0].c_str(), reference.bits * fps / pictures / 1000, reference.psnr,
               reference.ssim,
               encode(scene, settings[0], reference_quality, false).cpu / pictures * 1e3);
        for (size_t i = 1; i < settings.size(); ++i) {
            const double quality = quality_for(scene, settings[i], reference.bits);
            const Result found = encode(scene, settings[i], quality, true);
            const double cpu = cpu_ratio(scene, settings[i], quality, settings[0]);
            total[settings[i]] += cpu / static_cast<double>(scenes.size());
            printf("  CPU %.2f  bits %.3f  PSNR %+.2f  SSIM %+.2f  crf %.2f  %s\n", cpu,
                   found.bits / reference.bits, found.psnr - reference.psnr,
                   found.ssim - reference.ssim, quality, settings[i].c_str());
        }
        fflush(stdout);
    }
    for (const auto& [name, cpu] : total)
        printf("mean CPU %.2f  %s\n", cpu, name.c_str());
    return 0;
}
