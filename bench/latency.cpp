/**
 * Measures the time from a complete picture in the capture to its access unit in the caller.
 *
 * bench_latency [FRAMES [WIDTH HEIGHT FPS]]     default 300 frames of 1280x720 at 30 per second
 *
 * A frame's time stamp is the time at which the capture delivered the picture, so the latency is
 * now minus the time stamp. Key frames have the time of the newest picture and are not counted. The
 * measurement includes the caller's polling interval of 200 us.
 */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

#include <screenrecord/screenrecord.h>

namespace {

int64_t now_us()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1'000'000} + now.tv_nsec / 1000;
}

void pause_us(long us)
{
    const timespec pause = {0, us * 1000};
    nanosleep(&pause, nullptr);
}

/** Collects `count` latencies; fewer if no frame arrives for five seconds. */
std::vector<int64_t> measure(size_t count)
{
    std::vector<uint8_t> frame(video_capenc_getMaxEsSize());
    std::vector<int64_t> latencies;
    int64_t last_frame = now_us();
    while (latencies.size() < count && now_us() - last_frame < 5'000'000) {
        CapEnc_EsInfo info = {};
        if (video_capenc_getES(frame.data(), frame.size(), &info) != 0 || info.u64DataSize == 0) {
            pause_us(200);
            continue;
        }
        last_frame = now_us();
        if (!info.bKeyFrame)
            latencies.push_back(last_frame - static_cast<int64_t>(info.u64Pts));
    }
    return latencies;
}

double milliseconds_at(const std::vector<int64_t>& sorted, double part)
{
    return static_cast<double>(
               sorted[static_cast<size_t>(static_cast<double>(sorted.size() - 1) * part)]) /
           1000;
}

} // namespace

int main(int argc, char** argv)
{
    const auto number = [&](int index, unsigned fallback) {
        return argc > index ? static_cast<unsigned>(strtoul(argv[index], nullptr, 10)) : fallback;
    };
    CapEnc_OpenParams params = {
        number(2, 1280), number(3, 720), number(4, 30), 4'000'000, 2, 0x1000, 0};
    if (video_capenc_open(&params) != 0 || video_capenc_start(0) != 0) {
        fprintf(stderr, "bench_latency: cannot capture; the log says why\n");
        video_capenc_close();
        return 1;
    }
    std::vector<int64_t> latencies = measure(number(1, 300));
    video_capenc_stop();
    video_capenc_close();
    if (latencies.empty()) {
        fprintf(stderr, "bench_latency: no frames came\n");
        return 1;
    }
    std::sort(latencies.begin(), latencies.end());
    printf("%zu frames of %ux%u: median %.2f ms, 99th percentile %.2f ms, longest %.2f ms\n",
           latencies.size(), params.width, params.height, milliseconds_at(latencies, 0.5),
           milliseconds_at(latencies, 0.99), milliseconds_at(latencies, 1));
    return 0;
}
