#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "command_line/options.h"
#include "process/signals.h"

namespace client {

/** One frame as the library hands it out; the bytes stay until the next one is taken. */
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
     * Opens it, sets the watermark, whose picture is waited for until a stop is asked for, and
     * starts it; throws Failure, which begins with `purpose`. @param size what was asked for, not
     * rounded
     */
    EncodedStream(const StreamOptions& options, Size size, StopSignals& signals,
                  std::string purpose = "cannot stream");
    EncodedStream(const EncodedStream&) = delete;
    EncodedStream& operator=(const EncodedStream&) = delete;
    ~EncodedStream();

    /** Size of the encoded pictures. */
    Size size() const { return size_; }
    /** What the encoder aims at, for people. */
    std::string aim() const;

    /** Takes the oldest waiting frame; false when none is waiting. */
    bool take(EncodedFrame& frame);
    /** Ends capture; frames that wait can still be taken. */
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
