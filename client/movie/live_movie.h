#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "machine/host.h"
#include "movie/movie_recording.h"
#include "running/encoded_stream.h"
#include "running/sound_capture.h"

namespace client::movie {

/** A movie of the library's frames and sound, from the start of their capture. */
class LiveMovie {
public:
    /** See MovieRecording. */
    LiveMovie(const MovieFormat& format, int64_t limit, ByteSink& sink);

    /** Starts the capture. Throws Failure. */
    void start(const StreamOptions& options, StopSignals& signals);
    /** The target of the encoder, for the user. */
    std::string aim() const { return stream_->aim(); }

    /** Reads all waiting sound and one frame; false if no frame was waiting. Throws Failure. */
    bool take();
    void pause();
    void resume();
    bool paused() const { return paused_; }

    /** Ends the capture; waiting frames can still be taken. */
    void stop() { stream_->stop(); }
    /**
     * Takes the frames of all pictures until now, if they are encoded within 300 ms, and their
     * sound, if it comes within 100 ms; ends the capture. Throws Failure.
     */
    void take_the_rest();
    /** Call it once no more frames are encoded and none waits. */
    void count_unread();
    /** Completes the movie. Throws Failure. */
    void complete() { movie_.finish(); }
    /** Closes the library. */
    void close();

    /** The movie, for its size and end. */
    const MovieRecording& movie() const { return movie_; }
    /** Encoded frames that are not in the movie. */
    uint64_t missing() const { return movie_.left_out() + unread_; }
    /**
     * The missing pictures or sound as a sentence; nullopt if the movie is complete.
     * @param path for the sentence @param output "disk" or "reader"
     */
    std::optional<std::string> lacking(const std::string& path, const char* output) const;

private:
    void ask_for_key();
    void empty_encoder();

    const MovieFormat format_;
    MovieRecording movie_;
    std::optional<TimedSound> sound_;
    std::optional<EncodedStream> stream_;
    StatisticsDelta statistics_;
    /** for platforms that count no frames */
    LostFrames lost_{format_.fps};
    uint64_t taken_ = 0;
    /** time stamp of the last frame taken */
    uint64_t newest_us_ = 0;
    /** encoded frames that the library dropped before they were read */
    uint64_t unread_ = 0;
    bool paused_ = false;
    bool key_asked_ = false;
};

} // namespace client::movie
