/**
 * Starts and stops all modules with callbacks, COUNT times, while other threads call the library:
 * for ThreadSanitizer, and to find calls that hang or fail afterwards.
 *
 *     callback_races FOLDER COUNT [SEED]
 *
 * Each cycle records on slot 1 and, in turn, records, encodes or captures stills on slot 0. Four
 * threads read frames and PCM, change the watermark and tune the encoder in every state. Exit code
 * 0 if every start and stop succeeded and every interface delivered data. SIGALRM ends a call that
 * hangs.
 */
#include <atomic>
#include <thread>

#include "programs/support.h"

namespace {

using std::chrono::milliseconds;

constexpr uint32_t width = 160, height = 96, rate = 120;
constexpr unsigned hang_seconds = 60;

struct Came {
    std::atomic<long> frames{0}, pcm_bytes{0}, watermarks{0}, tunings{0}, stills{0}, recordings{0};
};

/** Threads that do not know, or care, what is open. */
class Intruders {
public:
    explicit Intruders(Came& came) : came_(came)
    {
        add([this, frame = std::vector<uint8_t>(video_capenc_getMaxEsSize())](unsigned) mutable {
            CapEnc_EsInfo info = {};
            came_.frames +=
                video_capenc_getES(frame.data(), frame.size(), &info) == 0 && info.u64DataSize != 0;
        });
        add([this, samples = std::vector<uint8_t>(1024)](unsigned) mutable {
            uint64_t size = 0;
            if (audio_cap_getPCM(samples.data(), samples.size(), &size) == 0)
                came_.pcm_bytes += static_cast<long>(size);
        });
        add([this, logo = android::sp<android::IMemory>(new Pixels(32 * 32 * 4))](unsigned turn) {
            const android::sp<android::WatermarkParams> watermark(new android::WatermarkParams);
            watermark->spMemory = turn % 5 == 0 ? android::sp<android::IMemory>() : logo;
            watermark->u32Width = watermark->u32Height = 32;
            watermark->s32X = static_cast<int32_t>(turn % 200) - 20;
            came_.watermarks += video_capenc_setWatermark(*watermark) == 0;
        });
        add([this](unsigned turn) {
            came_.tunings += video_capenc_setBitRate(500'000 + turn % 7 * 100'000) == 0;
            video_capenc_requestKeyFrame();
            turn % 8 == 0 ? video_capenc_pause() : video_capenc_resume();
        });
    }
    ~Intruders()
    {
        done_ = true;
        for (std::thread& thread : threads_)
            thread.join();
    }

private:
    template <typename Call> void add(Call call)
    {
        threads_.emplace_back([this, call]() mutable {
            for (unsigned turn = 0; !done_; ++turn) {
                call(turn);
                // the locks are the main thread's as well
                std::this_thread::sleep_for(milliseconds(1));
            }
        });
    }

    Came& came_;
    std::atomic<bool> done_{false};
    std::vector<std::thread> threads_;
};

class Cycles {
public:
    Cycles(const std::string& folder, Came& came, uint32_t seed)
        : folder_(folder), came_(came), random_(seed)
    {
        write_raw_file(folder_ + "/raw.nv12", width, height, 20);
    }

    void run(int number)
    {
        const std::string in_cycle = " in cycle " + std::to_string(number);
        Recording screen(0), raw(1);
        must(record(raw, "/slot1.ts", folder_ + "/raw.nv12"), "a start on slot 1" + in_cycle);
        switch (number % 3) {
        case 0:
            must(record(screen, "/slot0.ts", "cap"), "a start on slot 0" + in_cycle);
            live();
            must(screen.close(), "a close on slot 0" + in_cycle);
            ++came_.recordings;
            break;
        case 1:
            must(with_pcm([this] { return encode(); }), "capture-encode with PCM" + in_cycle);
            break;
        case 2:
            must(with_pcm([this] { return take_stills(); }), "stills with PCM" + in_cycle);
            break;
        }
        ++came_.recordings;
        must(number % 2 == 0 || raw.stop(), "a stop on slot 1" + in_cycle);
        must(raw.close(), "a close on slot 1" + in_cycle);
    }

private:
    /** Long enough for callbacks in most cycles, and for none in some. */
    void live() { std::this_thread::sleep_for(milliseconds(random_() % 4 * 10)); }

    bool record(Recording& recording, const char* name, const std::string& pictures)
    {
        return recording.open(folder_ + name, pictures, width, height, rate, "cap") &&
               recording.start();
    }
    template <typename Pictures> bool with_pcm(Pictures pictures)
    {
        const bool sound = audio_cap_open() == 0 && audio_cap_start() == 0;
        const bool done = pictures();
        return (random_() % 2 || audio_cap_stop() == 0) && audio_cap_close() == 0 && sound && done;
    }
    bool encode()
    {
        CapEnc_OpenParams params = {width, height, rate, 1'000'000, 1, 0x200, 0};
        const bool started = video_capenc_open(&params) == 0 && video_capenc_start(0) == 0;
        live();
        const bool stopped = random_() % 2 || video_capenc_stop() == 0;
        return video_capenc_close() == 0 && started && stopped;
    }
    bool take_stills()
    {
        Cap_OpenParams params = {width, height, E_CAP_OUTPUT_FMT_BGRA, 1, 2};
        bool taken = video_cap_open(&params) == 0;
        for (int i = 0; i < 2; ++i)
            taken = taken && video_cap_captureScreen(i) == 0;
        came_.stills += 2 * taken;
        return video_cap_close() == 0 && taken;
    }

    const std::string folder_;
    Came& came_;
    std::minstd_rand random_;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return fprintf(stderr, "usage: callback_races FOLDER COUNT [SEED]\n"), 2;
    const int count = atoi(argv[2]);
    const uint32_t seed = seed_from(argc, argv, 3);
    must(SCREENRECORD_Init(), "SCREENRECORD_Init");
    Came came;
    {
        const Intruders intruders(came);
        Cycles cycles(argv[1], came, seed);
        for (int number = 0; number < count; ++number) {
            alarm(hang_seconds);
            cycles.run(number);
        }
    }
    printf(
        "%d cycles: %ld recordings, %ld frames, %ld bytes of PCM, %ld watermarks, %ld tunings, %ld stills\n",
        count, came.recordings.load(), came.frames.load(), came.pcm_bytes.load(),
        came.watermarks.load(), came.tunings.load(), came.stills.load());
    return !SCREENRECORD_DeInit() || !came.frames || !came.pcm_bytes || !came.watermarks ||
           !came.stills;
}
