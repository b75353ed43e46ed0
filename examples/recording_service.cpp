// Records the screen into one file after another, like a service: the library ends each file at its
// time limit, and the service notices and starts the next. Ends at SIGINT or SIGTERM.
//
//   recording_service FOLDER SECONDS [FILES]      prints the name of each file when it is complete
#include <screenrecord/screenrecord.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;

volatile std::sig_atomic_t stop_asked = 0;

void ask_for_stop(int)
{
    stop_asked = 1;
}

bool start(std::string file, uint32_t seconds)
{
    const uint32_t width = 1280, height = 720, frames_per_second = 30, as_needed = 0,
                   packet_bytes = 188, h264 = 0;
    return startScreenRecord(width, height, frames_per_second, as_needed, packet_bytes, seconds,
                             h264, reinterpret_cast<uint8_t*>(file.data())) == 0;
}

// A start has no effect on a running recording, and fails if the time limit has closed it.
bool still_recording()
{
    uint32_t slot = 0;
    return SCREENRECORD_Start(&slot) == 1;
}

/** Waits, in steps short enough for a stop. */
void pause_for(std::chrono::milliseconds time)
{
    const auto end = std::chrono::steady_clock::now() + time;
    while (!stop_asked && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(50ms);
}

/** Records one file until its limit or a stop. False if it did not start. */
bool record(const std::string& file, uint32_t seconds)
{
    if (!start(file, seconds)) {
        std::fprintf(stderr, "cannot record into %s; the log says why\n", file.c_str());
        // a start that failed half-way may leave modules open
        stopScreenRecord();
        return false;
    }
    while (!stop_asked && still_recording())
        pause_for(200ms);
    // harmless if the limit has closed it
    stopScreenRecord();
    std::printf("%s\n", file.c_str());
    std::fflush(stdout);
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: recording_service FOLDER SECONDS [FILES]\n");
        return 2;
    }
    const std::string folder = argv[1];
    const auto seconds = static_cast<uint32_t>(std::atoi(argv[2]));
    // 0 = until a stop
    const int files = argc > 3 ? std::atoi(argv[3]) : 0;
    std::signal(SIGINT, ask_for_stop);
    std::signal(SIGTERM, ask_for_stop);

    auto patience = 1000ms;
    for (int made = 0; !stop_asked && (files == 0 || made < files);) {
        if (record(folder + "/recording-" + std::to_string(made + 1) + ".ts", seconds)) {
            ++made;
            patience = 1000ms;
        } else { // the display may come back; do not retry too often
            pause_for(patience);
            patience = patience < 30000ms ? patience * 2 : patience;
        }
    }
    SCREENRECORD_DeInit();
    return 0;
}
