#include "audio/audio_device.h"

#include <cstring>

namespace zu3host {

namespace {

/** `bytes` of samples at an address of any alignment. */
void scale(void* samples, size_t bytes, uint32_t percent)
{
    auto* at = static_cast<uint8_t*>(samples);
    for (size_t done = 0; done < bytes; done += sizeof(int16_t)) {
        int16_t sample;
        std::memcpy(&sample, at + done, sizeof sample);
        sample = static_cast<int16_t>(sample * static_cast<int32_t>(percent) / 100);
        std::memcpy(at + done, &sample, sizeof sample);
    }
}

} // namespace

void AudioDevice::start()
{
    const std::lock_guard lock(mutex_);
    if (use_)
        return;
    auto use = std::make_unique<CaptureUse>();
    reader_ = make_pcm_reader();
    use_ = std::move(use);
}

void AudioDevice::stop()
{
    const std::lock_guard lock(mutex_);
    reader_.reset();
    use_.reset();
}

size_t AudioDevice::level()
{
    const std::lock_guard lock(mutex_);
    return reader_ ? reader_->level() : 0;
}

size_t AudioDevice::read(void* dst, size_t size)
{
    const std::lock_guard lock(mutex_);
    const size_t bytes = reader_ ? reader_->read(dst, size) : 0;
    if (volume_ != 100)
        scale(dst, bytes, volume_);
    return bytes;
}

void AudioDevice::set_volume(uint32_t percent)
{
    const std::lock_guard lock(mutex_);
    volume_ = percent;
}

} // namespace zu3host
