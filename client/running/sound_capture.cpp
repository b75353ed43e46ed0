#include "running/sound_capture.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "command_line/options.h"
#include "machine/host.h"
#include "process/messages.h"
#include "running/library_log.h"

namespace client {
namespace {

/** Bytes of sound in one read, 21 ms. */
constexpr uint64_t piece_bytes = 4096;

class HeaderWriter {
public:
    void text(std::string_view letters) { at_ = std::copy(letters.begin(), letters.end(), at_); }
    void number(uint64_t value, int bytes)
    {
        for (int i = 0; i < bytes; ++i)
            *at_++ = static_cast<uint8_t>(value >> 8 * i);
    }
    std::array<uint8_t, wav_header_bytes> header{};

private:
    uint8_t* at_ = header.data();
};

uint64_t in_32_bits(uint64_t size)
{
    return std::min<uint64_t>(size, UINT32_MAX);
}

} // namespace

void check_sound_name(const std::string& name)
{
    std::vector<std::string> known = choices_of(sound_words);
    if (std::find(known.begin(), known.end(), name) != known.end())
        return;
    const auto sources = list_sound_sources();
    if (!sources)
        return;
    for (const SoundSource& source : *sources)
        known.push_back(source.name);
    if (std::find(known.begin(), known.end(), name) == known.end())
        throw Failure("there is no sound source '" + name + "', only " + listed(known, "and"),
                      ExitCode::usage);
}

void check_chosen_sound()
{
    const char* const server = secure_getenv("ZU3_AUDIO");
    const char* const name = secure_getenv("ZU3_SOUND");
    const bool by_server = !server || !*server || std::string(server) == "pulse";
    if (by_server && name && *name)
        check_sound_name(name);
}

std::array<uint8_t, wav_header_bytes> wav_header(const PcmFormat& format, uint64_t data_bytes)
{
    HeaderWriter w;
    w.text("RIFF");
    w.number(in_32_bits(data_bytes + wav_header_bytes - 8), 4);
    w.text("WAVEfmt ");
    w.number(16, 4);
    // PCM
    w.number(1, 2);
    w.number(format.channels, 2);
    w.number(format.sample_rate, 4);
    w.number(format.bytes_per_second(), 4);
    w.number(format.frame_bytes(), 2);
    w.number(format.bits, 2);
    w.text("data");
    w.number(in_32_bits(data_bytes), 4);
    return w.header;
}

SoundCapture::SoundCapture()
{
    if (audio_cap_open() != 0 || audio_cap_start() != 0) {
        audio_cap_close();
        throw library_failure("cannot record sound: the library refused to open the capture");
    }
    audio_cap_getInfo(&info_);
    buffer_.resize(info_.u64BufSize);
}

SoundCapture::~SoundCapture()
{
    audio_cap_close();
}

PcmFormat SoundCapture::format() const
{
    return {.channels = info_.u32Channels,
            .sample_rate = static_cast<uint32_t>(info_.u64SampleRate),
            .bits = 16};
}

std::span<const uint8_t> SoundCapture::read(uint64_t bytes)
{
    uint64_t got = 0;
    if (audio_cap_getPCM(buffer_.data(), std::min<uint64_t>(bytes, buffer_.size()), &got) != 0)
        throw Failure("the sound capture failed", ExitCode::ended_early);
    return {buffer_.data(), std::min<uint64_t>(got, buffer_.size())};
}

void TimedSound::read(const std::function<void(uint64_t, std::span<const int16_t>)>& take)
{
    for (auto samples = sound_.read(piece_bytes); !samples.empty();
         samples = sound_.read(piece_bytes))
        take(time_of(samples.size()),
             std::span(reinterpret_cast<const int16_t*>(samples.data()), samples.size() / 2));
}

// If the platform does not tell the time, sound begins at the start of the capture.
uint64_t TimedSound::time_of(uint64_t bytes)
{
    const uint64_t told = time_of_sound();
    const uint64_t time =
        told != 0 ? told : start_us_ + read_ * 1'000'000 / sound_.format().bytes_per_second();
    read_ += bytes;
    return time;
}

} // namespace client
