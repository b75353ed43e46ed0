#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "command_line/options.h"
#include "process/signals.h"

namespace client {

/** One frame of the library; its bytes are valid until the next take(). */
struct EncodedFrame {
    std::span<const uint8_t> bytes;
    /** of the monotonic clock */
    uint64_t pts_us = 0;
    bool key = false;
};

/** The library's capture-encode pipeline, from its opening to its close. */
class EncodedStream {
public:
    /**
     * Opens the pipeline, sets the watermark, and starts. Waits for the picture of the watermark
     * until a stop is requested. Throws Failure, which begins with `purpose`.
     * @param size the requested size, not rounded
     */
    EncodedStream(const StreamOptions& options, Size size, StopSignals& signals,
                  std::string purpose = "cannot stream");
    EncodedStream(const EncodedStream&) = delete;
    EncodedStream& operator=(const EncodedStream&) = delete;
    ~EncodedStream();

    /** Size of the encoded pictures. */
    Size size() const { return size_; }
    /** The target of the encoder, for the user. */
    std::string aim() const;

    /** Removes the oldest waiting frame; false if none is waiting. */
    bool take(EncodedFrame& frame);
    /** Ends capture; waiting frames can still be taken. */
    void stop();

private:
    void start(const WatermarkOptions& watermark, StopSignals& signals);

    const std::string purpose_;
    Size size_;
    std::optional<uint32_t> quality_;
    uint32_t bit_rate_;
    bool running_ = false;
    std::vector<uint8_t> buffer_;
};

} // namespace client
