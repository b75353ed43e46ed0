/**
 * Makes calls of the public interface that the client does not make. Exit code 0 if every result is
 * right; stderr names the calls with wrong ones. SIGALRM ends a call that hangs.
 *
 *     limit FOLDER COUNT [SEED]        recordings of 2 s, limit_<n>.ts, stopped around the limit
 *     limit-alone FILE                 one without a stop: prints the ms until it was closed
 *     cycles FILE COUNT [SEED]         starts and stops at random; prints the longest cycle's ms
 *     pair SCREEN.ts RAW.nv12 RAW.ts   slot 0 records the screen, slot 1 a raw file of 60 pictures
 *     hour FILE MINUTES                records; prints memory, pictures and backlog once a minute
 */
#include <chrono>
#include <malloc.h>
#include <sys/prctl.h>
#include <thread>

#include "programs/support.h"
#include "zu3_host/statistics.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr uint32_t limit_seconds = 2;
constexpr unsigned hang_seconds = 60;

int64_t milliseconds_since(Clock::time_point start)
{
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
}

void start_limited(std::string& file)
{
    must(startScreenRecord(640, 360, 30, 0, 188, limit_seconds, 0, bytes(file)) == 0,
         "startScreenRecord");
}

/** The limit is checked every 100 ms and passed once a whole second more than it has gone by. */
void limit(const std::string& folder, int count, uint32_t seed)
{
    std::minstd_rand random(seed);
    for (int n = 0; n < count; ++n) {
        alarm(hang_seconds);
        std::string file = folder + "/limit_" + std::to_string(n) + ".ts";
        const Clock::time_point begin = Clock::now();
        start_limited(file);
        int32_t result = -1;
        std::thread([&, moment = begin + milliseconds(2900 + random() % 400)] {
            std::this_thread::sleep_until(moment);
            result = stopScreenRecord();
        }).join();
        printf("%s stopped after %lld ms: %d\n", file.c_str(),
               static_cast<long long>(milliseconds_since(begin)), result);
        must(result == 0, "stopScreenRecord in round " + std::to_string(n));
    }
}

/** The slot is closed when this process holds the file no more. */
bool holds_open(const std::string& file)
{
    std::error_code error;
    const std::filesystem::path wanted = std::filesystem::canonical(file, error);
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error))
        if (std::filesystem::read_symlink(entry.path(), error) == wanted)
            return true;
    return false;
}

void limit_alone(std::string file)
{
    const Clock::time_point begin = Clock::now();
    start_limited(file);
    must(holds_open(file), "holding the file open");
    while (holds_open(file) && milliseconds_since(begin) < hang_seconds * 1000)
        std::this_thread::sleep_for(milliseconds(5));
    printf("%lld\n", static_cast<long long>(milliseconds_since(begin)));
}

void cycles(const std::string& file, int count, uint32_t seed)
{
    std::minstd_rand random(seed);
    int64_t longest = 0;
    must(SCREENRECORD_Init(), "SCREENRECORD_Init");
    for (int n = 0; n < count; ++n) {
        alarm(hang_seconds);
        const std::string in_cycle = " in cycle " + std::to_string(n);
        Recording recording(0);
        must(recording.open(file, "cap", 320, 240, 60), "opening" + in_cycle);
        const Clock::time_point begin = Clock::now();
        must(recording.start(), "SCREENRECORD_Start" + in_cycle);
        // One cycle in two stops at once; the others' distance is not measured.
        const milliseconds distance(n % 2 ? random() % 60 : 0);
        std::this_thread::sleep_for(distance);
        must(recording.stop() && recording.close(), "stop or close" + in_cycle);
        longest = std::max<int64_t>(longest, milliseconds_since(begin) - distance.count());
    }
    printf("%lld\n", static_cast<long long>(longest));
}

void pair(const std::string& screen_file, const std::string& raw_file,
          const std::string& raw_recording)
{
    constexpr uint32_t width = 320, height = 240;
    constexpr int raw_pictures = 60;
    write_raw_file(raw_file, width, height, raw_pictures);
    Recording screen(0), raw(1);
    must(SCREENRECORD_Init() && screen.open(screen_file, "cap", width, height, 30) &&
             raw.open(raw_recording, raw_file, width, height, 30),
         "opening");
    must(screen.start() && raw.start(), "starting");
    // A reader delivers a picture every 28 ms, so by then it has reached the end of its file.
    std::this_thread::sleep_for(milliseconds(raw_pictures * 28 * 2));
    must(raw.stop() && screen.stop() && raw.close() && screen.close(), "stop or close");
}

void hour(std::string file, int minutes)
{
    // As in the client: otherwise up to 4 MiB that x264 freed stay resident.
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    // The kernel merges pages of the encoder's buffers into huge ones and splits them at any time,
    // which would hide growth.
    must(prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0) == 0, "prctl");
    must(startScreenRecord(1280, 720, 30, 0, 188, 0, 0, bytes(file)) == 0, "startScreenRecord");
    printf("minute resident_kib descriptors due captured late no_buffer no_display encoded refused "
           "waiting_pictures waiting_kib\n");
    const Clock::time_point begin = Clock::now();
    for (int minute = 1; minute <= minutes; ++minute) {
        std::this_thread::sleep_until(begin + std::chrono::minutes(minute));
        zu3_host_statistics_t counted{};
        zu3_host_statistics(&counted, sizeof counted);
        const auto number = [](uint64_t value) { return static_cast<unsigned long long>(value); };
        printf("%d %ld %ld %llu %llu %llu %llu %llu %llu %llu %lld %llu\n", minute, resident_kib(),
               descriptors(), number(counted.pictures_due), number(counted.pictures_captured),
               number(counted.pictures_dropped_late), number(counted.pictures_dropped_no_buffer),
               number(counted.pictures_dropped_no_display), number(counted.pictures_encoded),
               number(counted.pictures_refused),
               static_cast<long long>(counted.pictures_captured - counted.pictures_encoded -
                                      counted.pictures_refused),
               number((counted.bytes_multiplexed - counted.bytes_copied_out) / 1024));
        fflush(stdout);
    }
    must(stopScreenRecord() == 0, "stopScreenRecord");
}

} // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "limit" && argc >= 4)
        limit(argv[2], atoi(argv[3]), seed_from(argc, argv, 4));
    else if (mode == "limit-alone" && argc == 3)
        limit_alone(argv[2]);
    else if (mode == "cycles" && argc >= 4)
        cycles(argv[2], atoi(argv[3]), seed_from(argc, argv, 4));
    else if (mode == "pair" && argc == 5)
        pair(argv[2], argv[3], argv[4]);
    else if (mode == "hour" && argc == 4)
        hour(argv[2], atoi(argv[3]));
    else
        return fprintf(stderr,
                       "usage: api_stress limit FOLDER COUNT [SEED] | limit-alone FILE |\n"
                       "       cycles FILE COUNT [SEED] | pair SCREEN.ts RAW.nv12 RAW.ts |\n"
                       "       hour FILE MINUTES\n"),
               2;
    must(mode == "hour" || SCREENRECORD_DeInit(), "SCREENRECORD_DeInit");
}
