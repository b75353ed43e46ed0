#pragma once

#include "audio/capture_hub.h"
#include "audio/pcm_reader.h"

#include <memory>
#include <mutex>

namespace zu3host {

/** One open audio capture handle. Thread-safe. */
class AudioDevice {
public:
    /** Listens from now on; again without effect. Throws as CaptureUse does. */
    void start();
    /** Ends listening and drops what was not read. */
    void stop();
    /** Bytes waiting to be read; 0 while not started. */
    size_t level();
    /** Moves whole frames out, at most `size` bytes. */
    size_t read(void* dst, size_t size);
    /** @param percent 0 to 100; what is read from now on is scaled by it */
    void set_volume(uint32_t percent);

private:
    std::mutex mutex_;
    std::unique_ptr<CaptureUse> use_;
    std::unique_ptr<PcmReader> reader_;
    uint32_t volume_ = 100;
};

} // namespace zu3host
