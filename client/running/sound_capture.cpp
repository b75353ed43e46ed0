#include "running/sound_capture.h"

#include <algorithm>

#include "process/messages.h"
#include "running/library_log.h"

namespace client {

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
        throw Failure("the sound capture gave up", ExitCode::ended_early);
    return {buffer_.data(), std::min<uint64_t>(got, buffer_.size())};
}

} // namespace client
