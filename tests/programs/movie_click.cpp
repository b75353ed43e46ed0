/**
 * Writes frames with the module for movies, and a beep that begins with frame 30.
 *
 *     movie_click MODULE mp4|mkv|ts FILE < FRAMES
 *
 * FRAMES are 64x64 at 30 per second. A frame is a size of 4 bytes, little-endian, and the access
 * unit; only the first one is a key frame.
 */
#include <client/movie/movie_module.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <dlfcn.h>
#include <string_view>
#include <vector>

namespace {

using namespace client;
using namespace client::movie;

constexpr uint32_t fps = 30, pairs_per_frame = sound_rate / fps, beep_begin = sound_rate;

class FileOutput final : public MovieOutput {
public:
    explicit FileOutput(const char* path) : file_(fopen(path, "wb")) {}
    FileOutput(const FileOutput&) = delete;
    FileOutput& operator=(const FileOutput&) = delete;
    ~FileOutput() override { fclose(file_); }
    void write(uint64_t at, std::span<const uint8_t> bytes) override
    {
        if (fseek(file_, static_cast<long>(at), SEEK_SET) != 0 ||
            fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size())
            throw std::runtime_error("cannot write");
    }

private:
    FILE* const file_;
};

bool read_frame(std::vector<uint8_t>& frame)
{
    uint8_t size[4];
    if (fread(size, 1, sizeof size, stdin) != sizeof size)
        return false;
    frame.resize(size[0] | size[1] << 8 | size[2] << 16 | size[3] << 24);
    return fread(frame.data(), 1, frame.size(), stdin) == frame.size();
}

std::vector<int16_t> sound_of(int64_t frame)
{
    std::vector<int16_t> samples;
    for (uint32_t i = 0; i < pairs_per_frame; ++i) {
        const int64_t at = frame * pairs_per_frame + i - beep_begin;
        const double angle = 2 * M_PI * 1000 * static_cast<double>(at) / sound_rate;
        samples.insert(samples.end(), sound_channels,
                       static_cast<int16_t>(at < 0 ? 0 : 26000 * std::sin(angle)));
    }
    return samples;
}

} // namespace

int main(int argc, char** argv)
{
    void* const library = argc == 4 ? dlopen(argv[1], RTLD_LAZY) : nullptr;
    const auto get =
        library ? reinterpret_cast<GetModule>(dlsym(library, module_function)) : nullptr;
    if (!get) {
        fprintf(stderr, "movie_click: no module: %s\n", argc == 4 ? dlerror() : "three words");
        return 1;
    }
    const std::string_view kind = argv[2];
    MovieFormat format{.width = 64, .height = 64, .fps = fps, .seekable = kind != "ts"};
    format.container = kind == "mp4"   ? Container::mp4
                       : kind == "mkv" ? Container::matroska
                                       : Container::transport_stream;
    FileOutput file(argv[3]);
    const auto writer = get()->open(format, file);
    std::vector<uint8_t> frame;
    for (int64_t index = 0; read_frame(frame); ++index) {
        writer->put_frame(frame, index, index == 0);
        writer->put_sound(sound_of(index));
    }
    writer->finish();
    return 0;
}
