#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <sys/resource.h>
#include <vector>

#include "command_line/options.h"
#include "files/png_file.h"
#include "process/signals.h"
#include "running/attended_work.h"
#include <screenrecord/screenrecord.h>

namespace client {

/**
 * A requested watermark. A separate thread reads its picture, which may come from a pipe without a
 * writer.
 */
class WatermarkChange {
public:
    /** Starts to read the picture, if there is one. Throws Failure. */
    explicit WatermarkChange(const WatermarkOptions& options);

    /** The work of reading, to wait for. */
    const AttendedWork& reading() const { return reading_; }
    /**
     * Draws the picture into the stream, or replaces the current one; an image of "" removes it.
     * Call it after the picture is read and after video_capenc_open. Throws Failure.
     */
    void apply();

private:
    WatermarkOptions options_;
    // shared with the reading thread
    std::shared_ptr<RgbaPicture> picture_;
    AttendedWork reading_;
};

/** The default bit rate of a stream, in bits per second. */
uint32_t sensible_bit_rate(Size size, uint32_t fps);

/** One frame of the library; its bytes are valid until the next take(). */
struct EncodedFrame {
    std::span<const uint8_t> bytes;
    /** when its picture was due, on the monotonic clock; of a key frame perhaps a later picture */
    uint64_t pts_us = 0;
    bool key = false;
    /** when its picture was captured */
    uint64_t captured_us = 0;
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
    void open(CapEnc_OpenParams& params) const;
    void start(const WatermarkOptions& watermark, StopSignals& signals);

    const std::string purpose_;
    Size size_;
    std::optional<uint32_t> quality_;
    uint32_t bit_rate_;
    bool running_ = false;
    std::vector<uint8_t> buffer_;
};

/**
 * Counts frames that the library never delivered: the frames due between the first and the last
 * time stamp of a stretch, minus those that came. A stretch ends at each request that makes the
 * encoder leave out frames.
 */
class LostFrames {
public:
    explicit LostFrames(uint32_t fps) : fps_(fps) {}

    void frame_taken(uint64_t pts_us);
    /** No frame was read until this time of the same clock: the frames due by then are lost. */
    void nothing_taken_until(uint64_t time_us);
    /** Frames left out from here to the next frame do not count as lost. */
    void break_stretch();
    uint64_t count() const { return finished_ + in_stretch(); }

private:
    uint64_t in_stretch() const;

    uint32_t fps_;
    uint64_t finished_ = 0;
    uint64_t first_pts_us_ = 0;
    uint64_t last_pts_us_ = 0;
    uint64_t frames_ = 0;
};

/** The end of a wait for frames. @param event of the frames; -1 = none, so the wait is shorter */
inline TimePoint next_check_beside_frames(int event)
{
    return Clock::now() + std::chrono::milliseconds(event >= 0 ? 50 : 2);
}

/**
 * While it exists, this thread runs at the higher priority of the capture threads, if the system
 * allows it: it has three frame periods to read a frame.
 */
class Preferred {
public:
    Preferred()
        : preferred_(getpriority(PRIO_PROCESS, 0) == 0 && setpriority(PRIO_PROCESS, 0, -10) == 0)
    {
    }
    Preferred(const Preferred&) = delete;
    Preferred& operator=(const Preferred&) = delete;
    ~Preferred()
    {
        if (preferred_)
            setpriority(PRIO_PROCESS, 0, 0);
    }

private:
    const bool preferred_;
};

} // namespace client
