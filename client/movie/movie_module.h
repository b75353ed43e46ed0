#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "files/output_format.h"

namespace client::movie {

// The interface between the program and its module for movie files. Both are built together, so
// classes can pass between them. Only the module links libavformat and libavcodec; it is loaded
// when a movie is written. Failures are thrown as std::runtime_error with the end of a sentence.

/** Sound in a movie: 48 kHz, two channels, interleaved. */
inline constexpr uint32_t sound_rate = 48000;
inline constexpr uint32_t sound_channels = 2;

struct MovieFormat {
    Container container = Container::mp4;
    /** pixels */
    uint32_t width = 0;
    uint32_t height = 0;
    /** frames per second: the grid that frames lie on */
    uint32_t fps = 30;
    bool sound = true;
    /** whether written bytes can be replaced, as in a file and unlike in a pipe */
    bool seekable = true;
};

/** Destination of the bytes of a movie. */
class MovieOutput {
public:
    virtual ~MovieOutput() = default;
    /** @param at offset of the first byte; the end of the file unless the format is seekable */
    virtual void write(uint64_t at, std::span<const uint8_t> bytes) = 0;
};

/** Joins frames and sound in a movie. */
class MovieWriter {
public:
    virtual ~MovieWriter() = default;
    /**
     * @param frame an H.264 access unit (ISO/IEC 14496-10, Annex B), the first one an IDR with SPS
     *     and PPS
     * @param index its place on the grid, from 0, each greater than the last
     */
    virtual void put_frame(std::span<const uint8_t> frame, int64_t index, bool key) = 0;
    /** @param samples whole pairs that follow the previous ones; the first is heard with frame 0 */
    virtual void put_sound(std::span<const int16_t> samples) = 0;
    /** Writes the rest and the index. */
    virtual void finish() = 0;
};

/**
 * A movie to copy into another container, or with its index in front, without encoding it again.
 */
struct CopyJob {
    /** open to read, an ordinary file */
    int from = -1;
    /** open to write, an empty ordinary file */
    int to = -1;
    Container container = Container::mp4;
    /** written by a MovieWriter, so that its header tells all that a copy needs */
    bool own = false;
    /**
     * Called with the finished part, 0 to 1; returns whether to continue, otherwise the copy fails.
     */
    std::function<bool(double)> go_on;
};

class MovieModule {
public:
    virtual ~MovieModule() = default;
    /** @param output outlives the writer */
    virtual std::unique_ptr<MovieWriter> open(const MovieFormat& format,
                                              MovieOutput& output) const = 0;
    /** Copies; after a failure the caller removes the output. */
    virtual void copy(const CopyJob& job) const = 0;
};

/** The function that the module exports, and its name. */
using GetModule = const MovieModule* (*)();
inline constexpr const char* module_function = "screenrecord_movie_module";

/**
 * The module that writes movies; the first call loads it, and it stays loaded. Throws Failure if
 * it, or a library below it, is not installed.
 */
const MovieModule& movie_module();

} // namespace client::movie
