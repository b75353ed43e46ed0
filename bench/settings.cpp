/**
 * Compares x264 settings on scenes of a screen: CPU time, and picture quality at equal bits.
 *
 * bench_settings [--scene NAME] [--picture FILE.ppm] REFERENCE CANDIDATE...
 *
 * Settings are "PRESET[,KEY=VALUE...]"; each is tuned for zero latency. The reference encodes at
 * constant quality 23; for each candidate it searches for the quality at which a scene needs as
 * many bits (within 0.2 percent), to make the pictures comparable. Prints per scene the CPU time
 * against the reference's and the differences in PSNR (dB, all planes) and SSIM (dB). "mbinfo=1" as
 * a key tells x264 which macroblocks did not change. --picture writes the middle picture of the
 * scene and encodes nothing.
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
#include <sstream>

#include <libyuv/convert_from_argb.h>
#include <x264.h>

#include "screen_scenes.h"

namespace {

constexpr int pictures = 90;
constexpr int fps = 30;
constexpr double reference_quality = 23;
constexpr size_t luma_bytes = size_t{ScreenScene::width} * ScreenScene::height;
constexpr int mb_columns = ScreenScene::width / 16;
constexpr int mb_lines = ScreenScene::height / 16;

struct Picture {
    std::vector<uint8_t> nv12;
    // per macroblock, as x264 wants to be told
    std::vector<uint8_t> constant;
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
};

double cpu_now()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

bool same_block(const Picture& one, const Picture& other, int column, int line)
{
    const auto same_rows = [&](size_t start, int rows) {
        for (int row = 0; row < rows; ++row)
            if (std::memcmp(&one.nv12[start + static_cast<size_t>(row * ScreenScene::width)],
                            &other.nv12[start + static_cast<size_t>(row * ScreenScene::width)],
                            16) != 0)
                return false;
        return true;
    };
    const auto x = static_cast<size_t>(column * 16);
    return same_rows(static_cast<size_t>(line * 16 * ScreenScene::width) + x, 16) &&
           same_rows(luma_bytes + static_cast<size_t>(line * 8 * ScreenScene::width) + x, 8);
}

Scene draw_scene(const std::string& name)
{
    ScreenScene source(name);
    Scene scene;
    for (int number = 0; number < pictures; ++number) {
        Picture picture{std::vector<uint8_t>(luma_bytes * 3 / 2),
                        std::vector<uint8_t>(mb_columns * mb_lines)};
        const auto* pixels = reinterpret_cast<const uint8_t*>(source.draw(number));
        libyuv::ARGBToNV12(pixels, ScreenScene::width * 4, picture.nv12.data(), ScreenScene::width,
                           picture.nv12.data() + luma_bytes, ScreenScene::width, ScreenScene::width,
                           ScreenScene::height);
        if (number > 0)
            for (int i = 0; i < mb_columns * mb_lines; ++i)
                picture.constant[static_cast<size_t>(i)] =
                    same_block(picture, scene.back(), i % mb_columns, i / mb_columns)
                        ? X264_MBINFO_CONSTANT
                        : 0;
        scene.push_back(std::move(picture));
    }
    return scene;
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
        if (key == "mbinfo")
            parameters.analyse.b_mb_info = 1;
        else if (x264_param_parse(&parameters, key.c_str(), value.c_str()) != 0)
            exit((fprintf(stderr, "bench_settings: x264 does not know %s\n", word.c_str()), 2));
    }
    parameters.rc.i_rc_method = X264_RC_CRF;
    parameters.rc.f_rf_constant = static_cast<float>(quality);
    return parameters;
}

/**
 * Encodes a scene. Measures the picture only if `measured`, because that costs time.
 */
Result encode(Scene& scene, const std::string& settings, double quality, bool measured)
{
    x264_param_t parameters = parameters_of(settings, quality);
    parameters.analyse.b_psnr = parameters.analyse.b_ssim = measured;
    const bool told = parameters.analyse.b_mb_info != 0;
    x264_t* const encoder = x264_encoder_open(&parameters);
    Result result;
    const double before = cpu_now();
    int64_t number = 0;
    for (Picture& picture : scene) {
        x264_picture_t in, out;
        x264_picture_init(&in);
        in.img = {X264_CSP_NV12,
                  2,
                  {ScreenScene::width, ScreenScene::width},
                  {picture.nv12.data(), picture.nv12.data() + luma_bytes}};
        in.i_pts = number++;
        if (told)
            in.prop.mb_info = picture.constant.data();
        x264_nal_t* nals = nullptr;
        int count = 0;
        result.bits += 8.0 * x264_encoder_encode(encoder, &nals, &count, &in, &out);
        // Above about 50 dB differences are invisible.
        result.psnr += std::min(out.prop.f_psnr_avg, 60.0) / pictures;
        result.ssim += out.prop.f_ssim / pictures;
    }
    result.cpu = cpu_now() - before;
    result.ssim = -10 * std::log10(std::max(1 - result.ssim, 1e-9));
    x264_encoder_close(encoder);
    return result;
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

int write_picture(const std::string& name, const char* path)
{
    ScreenScene scene(name);
    FILE* const file = fopen(path, "wb");
    if (!file) {
        perror(path);
        return 1;
    }
    fprintf(file, "P6 %d %d 255\n", ScreenScene::width, ScreenScene::height);
    const uint32_t* pixels = scene.draw(pictures / 2);
    for (size_t i = 0; i < luma_bytes; ++i)
        for (int shift = 16; shift >= 0; shift -= 8)
            fputc(static_cast<int>(pixels[i] >> shift & 255), file);
    return fclose(file);
}

bool is_scene(const std::string& name)
{
    return std::find(ScreenScene::names.begin(), ScreenScene::names.end(), name) !=
           ScreenScene::names.end();
}

int show_usage()
{
    fputs(
        "usage: bench_settings [--scene NAME] [--picture FILE.ppm] PRESET[,KEY=VALUE...]...\nscenes:",
        stderr);
    for (const char* name : ScreenScene::names)
        fprintf(stderr, " %s", name);
    fputs("\n", stderr);
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> scenes(ScreenScene::names.begin(), ScreenScene::names.end()), settings;
    const char* picture = nullptr;
    for (int i = 1; i < argc; ++i)
        if (!strcmp(argv[i], "--scene") && i + 1 < argc)
            scenes = {argv[++i]};
        else if (!strcmp(argv[i], "--picture") && i + 1 < argc)
            picture = argv[++i];
        else
            settings.emplace_back(argv[i]);
    if (!is_scene(scenes[0]) || (!picture && settings.empty()))
        return show_usage();
    if (picture)
        return write_picture(scenes[0], picture);
    // CPU of all scenes, relative to the reference
    std::map<std::string, double> total;
    for (const std::string& name : scenes) {
        Scene scene = draw_scene(name);
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
