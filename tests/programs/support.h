/** Shared by the programs. */
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "base/picture_layout.h"
#include <screenrecord/screenrecord.h>
#include <srglworker/SrGlWorker.h>

/** Ends the program, saying what failed, unless it is `good`. */
inline void must(bool good, const std::string& what)
{
    if (good)
        return;
    fflush(stdout);
    fprintf(stderr, "%s failed\n", what.c_str());
    _exit(1);
}

/** The interface's pointers to names are not const. */
inline uint8_t* bytes(std::string& text)
{
    return reinterpret_cast<uint8_t*>(text.data());
}

/** A slot through the step-by-step interface. */
class Recording {
public:
    explicit Recording(uint32_t slot) : slot_(slot) {}

    /** `sound` empty = none. */
    bool open(std::string file, std::string pictures, uint32_t width, uint32_t height,
              uint32_t rate, std::string sound = "")
    {
        uint32_t packet_size = 188;
        return SCREENRECORD_Open(&slot_, bytes(file)) &&
               (sound.empty() || SCREENRECORD_SetAudio(&slot_, bytes(sound), nullptr, nullptr)) &&
               SCREENRECORD_SetVideo(&slot_, bytes(pictures), nullptr, &width, &height, &rate) &&
               SCREENRECORD_SetTsMux(&slot_, &packet_size, nullptr);
    }
    bool start() { return SCREENRECORD_Start(&slot_); }
    bool stop() { return SCREENRECORD_Stop(&slot_); }
    bool close() { return SCREENRECORD_Close(&slot_); }

private:
    uint32_t slot_;
};

/** The memory of a watermark, of one grey. */
class Pixels : public android::IMemory {
public:
    explicit Pixels(size_t size) : bytes_(size, 0x90) {}
    void* pointer() const override { return const_cast<uint8_t*>(bytes_.data()); }
    size_t size() const override { return bytes_.size(); }

private:
    std::vector<uint8_t> bytes_;
};

/** Raw pictures of one grey each, a little lighter from one to the next. */
inline void write_raw_file(const std::string& name, uint32_t width, uint32_t height, int pictures)
{
    const auto layout = zu3host::PictureLayout::of(width, height);
    std::ofstream file(name, std::ios::binary);
    std::vector<char> picture(layout.picture_bytes(), static_cast<char>(128));
    for (int n = 0; n < pictures; ++n) {
        std::fill_n(picture.begin(), layout.luma_bytes(), static_cast<char>(40 + 2 * n));
        file.write(picture.data(), static_cast<std::streamsize>(picture.size()));
    }
    must(file.good(), "writing " + name);
}

/** From argument `place`, or any; said on stderr. */
inline uint32_t seed_from(int argc, char** argv, int place)
{
    const auto seed = argc > place ? static_cast<uint32_t>(strtoul(argv[place], nullptr, 10))
                                   : std::random_device()();
    fprintf(stderr, "seed %u\n", seed);
    return seed;
}

inline long resident_kib()
{
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    return pages * sysconf(_SC_PAGESIZE) / 1024;
}

inline long descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}
