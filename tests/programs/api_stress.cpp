/**
 * Drives the public interface in ways that the client program does not, for the end-to-end tests.
 *
 *   api_stress limit FOLDER COUNT [SEED]   COUNT one-call recordings limited to 2 s, FOLDER/limit_<n>.ts,
 * each stopped by a second thread at a random moment around the limit api_stress limit-alone FILE one such
 * recording that nobody stops: prints when it closed itself api_stress cycles FILE COUNT [SEED]    COUNT
 * times start, stop and close, at random distances; prints the longest time from start to closed api_stress
 * pair SCREEN.ts RAW.nv12 RAW.ts slot 0 records the screen while slot 1 records a raw file of 60 pictures
 * (made here), both 320x240 api_stress hour FILE MINUTES           records the screen, prints resident memory
 * and descriptors once a minute
 *
 * Exit code 0 when every call answered as it must; what did not is said on stderr. A call that hangs ends the
 * program by SIGALRM.
 */
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include "common/picture_layout.h"
#include "screenrecord/screenrecord.h"
#include "zu3_host/statistics.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr uint32_t limit_seconds = 2;
constexpr unsigned hang_seconds = 60;

uint8_t* bytes(std::string& text)
{
    return reinterpret_cast<uint8_t*>(text.data());
}

int64_t milliseconds_since(Clock::time_point start)
{
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
}

int fail(const std::string& what)
{
    fprintf(stderr, "api_stress: %s\n", what.c_str());
    return 1;
}

bool start_limited(std::string& file)
{
    return startScreenRecord(640, 360, 30, 0, 188, limit_seconds, 0, bytes(file)) == 0;
}

/** A slot through the step-by-step interface. */
class Recording {
public:
    explicit Recording(uint32_t slot) : slot_(slot) {}

    bool open(std::string file, std::string source, uint32_t width, uint32_t height, uint32_t rate)
    {
        uint32_t packet_size = 188;
        return SCREENRECORD_Open(&slot_, bytes(file)) &&
               SCREENRECORD_SetVideo(&slot_, bytes(source), nullptr, &width, &height, &rate) &&
               SCREENRECORD_SetTsMux(&slot_, &packet_size, nullptr);
    }
    bool start() { return SCREENRECORD_Start(&slot_); }
    bool stop() { return SCREENRECORD_Stop(&slot_); }
    bool close() { return SCREENRECORD_Close(&slot_); }

private:
    uint32_t slot_;
};

/** The limit is checked every 100 ms and passed once a whole second more than it has gone by. */
int limit(const std::string& folder, int count, uint32_t seed)
{
    std::minstd_rand random(seed);
    for (int n = 0; n < count; ++n) {
        alarm(hang_seconds);
        std::string file = folder + "/limit_" + std::to_string(n) + ".ts";
        const Clock::time_point begin = Clock::now();
        if (!start_limited(file))
            return fail("startScreenRecord failed in round " + std::to_string(n));
        const auto moment = begin + milliseconds(2900 + random() % 400);
        int32_t result = -1;
        std::thread client([&] {
            std::this_thread::sleep_until(moment);
            result = stopScreenRecord();
        });
        client.join();
        printf("%s stopped after %lld ms: %d\n", file.c_str(),
               static_cast<long long>(milliseconds_since(begin)), result);
        if (result != 0)
            return fail("stopScreenRecord failed in round " + std::to_string(n));
    }
    return SCREENRECORD_DeInit() ? 0 : fail("SCREENRECORD_DeInit failed");
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

int limit_alone(std::string file)
{
    const Clock::time_point begin = Clock::now();
    if (!start_limited(file))
        return fail("startScreenRecord failed");
    if (!holds_open(file))
        return fail("the recording does not hold its file open");
    while (holds_open(file) && milliseconds_since(begin) < hang_seconds * 1000)
        std::this_thread::sleep_for(milliseconds(5));
    printf("%lld\n", static_cast<long long>(milliseconds_since(begin)));
    return SCREENRECORD_DeInit() ? 0 : fail("SCREENRECORD_DeInit failed");
}

int cycles(const std::string& file, int count, uint32_t seed)
{
    std::minstd_rand random(seed);
    int64_t longest = 0;
    if (!SCREENRECORD_Init())
        return fail("SCREENRECORD_Init failed");
    for (int n = 0; n < count; ++n) {
        alarm(hang_seconds);
        Recording recording(0);
        if (!recording.open(file, "cap", 320, 240, 60))
            return fail("opening failed in cycle " + std::to_string(n));
        const Clock::time_point begin = Clock::now();
        if (!recording.start())
            return fail("SCREENRECORD_Start failed in cycle " + std::to_string(n));
        // One cycle in two stops at once; the distance of the others is left out of the measured time.
        const milliseconds distance(n % 2 ? random() % 60 : 0);
        std::this_thread::sleep_for(distance);
        if (!recording.stop() || !recording.close())
            return fail("stop or close failed in cycle " + std::to_string(n));
        longest = std::max<int64_t>(longest, milliseconds_since(begin) - distance.count());
    }
    printf("%lld\n", static_cast<long long>(longest));
    return SCREENRECORD_DeInit() ? 0 : fail("SCREENRECORD_DeInit failed");
}

constexpr uint32_t pair_width = 320;
constexpr uint32_t pair_height = 240;
constexpr int raw_pictures = 60;

/** Pictures of one grey each, a little lighter from one to the next. */
bool write_raw_file(const std::string& name)
{
    const auto layout = zu3host::PictureLayout::of(pair_width, pair_height);
    std::ofstream file(name, std::ios::binary);
    std::vector<char> picture(layout.picture_bytes(), static_cast<char>(128));
    for (int n = 0; n < raw_pictures; ++n) {
        std::fill_n(picture.begin(), layout.luma_bytes(), static_cast<char>(40 + 2 * n));
        file.write(picture.data(), static_cast<std::streamsize>(picture.size()));
    }
    return file.good();
}

int pair(const std::string& screen_file, const std::string& raw_file, const std::string& raw_recording)
{
    if (!write_raw_file(raw_file))
        return fail("the raw file could not be written");
    Recording screen(0);
    Recording raw(1);
    if (!SCREENRECORD_Init() || !screen.open(screen_file, "cap", pair_width, pair_height, 30) ||
        !raw.open(raw_recording, raw_file, pair_width, pair_height, 30))
        return fail("opening failed");
    if (!screen.start() || !raw.start())
        return fail("starting failed");
    // A reader passes on a picture every 28 ms and a little; after this long it has met the end of its file.
    std::this_thread::sleep_for(milliseconds(raw_pictures * 28 * 2));
    const bool stopped = raw.stop() && screen.stop();
    const bool closed = raw.close() && screen.close();
    if (!stopped || !closed)
        return fail("stop or close failed");
    return SCREENRECORD_DeInit() ? 0 : fail("SCREENRECORD_DeInit failed");
}

long resident_kib()
{
    std::ifstream statm("/proc/self/statm");
    long total = 0;
    long resident = 0;
    statm >> total >> resident;
    return resident * sysconf(_SC_PAGESIZE) / 1024;
}

int hour(std::string file, int minutes)
{
    if (startScreenRecord(1280, 720, 30, 0, 188, 0, 0, bytes(file)) != 0)
        return fail("startScreenRecord failed");
    printf("minute resident_kib descriptors due captured late no_buffer no_display encoded refused\n");
    const Clock::time_point begin = Clock::now();
    for (int minute = 1; minute <= minutes; ++minute) {
        std::this_thread::sleep_until(begin + std::chrono::minutes(minute));
        zu3_host_statistics_t counted{};
        zu3_host_statistics(&counted, sizeof counted);
        const auto number = [](uint64_t value) { return static_cast<unsigned long long>(value); };
        printf("%d %ld %td %llu %llu %llu %llu %llu %llu %llu\n", minute, resident_kib(),
               std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}),
               number(counted.pictures_due), number(counted.pictures_captured),
               number(counted.pictures_dropped_late), number(counted.pictures_dropped_no_buffer),
               number(counted.pictures_dropped_no_display), number(counted.pictures_encoded),
               number(counted.pictures_refused));
        fflush(stdout);
    }
    return stopScreenRecord() == 0 ? 0 : fail("stopScreenRecord failed");
}

uint32_t seed_from(int argc, char** argv, int place)
{
    const uint32_t seed =
        argc > place ? static_cast<uint32_t>(strtoul(argv[place], nullptr, 10)) : std::random_device()();
    fprintf(stderr, "seed %u\n", seed);
    return seed;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "limit" && argc >= 4)
        return limit(argv[2], atoi(argv[3]), seed_from(argc, argv, 4));
    if (mode == "limit-alone" && argc == 3)
        return limit_alone(argv[2]);
    if (mode == "cycles" && argc >= 4)
        return cycles(argv[2], atoi(argv[3]), seed_from(argc, argv, 4));
    if (mode == "pair" && argc == 5)
        return pair(argv[2], argv[3], argv[4]);
    if (mode == "hour" && argc == 4)
        return hour(argv[2], atoi(argv[3]));
    fprintf(stderr,
            "usage: api_stress limit FOLDER COUNT [SEED] | limit-alone FILE | cycles FILE COUNT [SEED] |\n"
            "       pair SCREEN.ts RAW.nv12 RAW.ts | hour FILE MINUTES\n");
    return 2;
}
