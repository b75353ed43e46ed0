#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "command_line/option_values.h"
#include "process/signals.h"

namespace client {

/** Everything that a recording is opened with. */
struct RecordingSettings {
    std::string file;
    /** raw picture file, empty = the screen */
    std::string source;
    Size size;
    uint32_t fps = 30;
    uint32_t constant_mbit = 0;
    uint32_t packet_size = 188;
    uint32_t slot = 0;
    bool audio = true;
    bool one_call = false;
};

/**
 * One recording of the library, from its opening to its close; also closed when something fails
 * half-way.
 */
class Recording {
public:
    /**
     * Longest wait for a writer that is behind: a stop must end the program within three seconds; a
     * time limit can wait.
     */
    static constexpr std::chrono::milliseconds patience_of_a_stop{2000},
        patience_at_the_end{15'000};

    /** Opens and starts it; throws Failure. */
    explicit Recording(const RecordingSettings& settings);
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;
    ~Recording();

    /**
     * Waits for the first picture (1.5 s at most), stops capture, waits until the writer has caught
     * up with what is multiplexed, at most for `writer_limit`, and closes the file. A disk that
     * stands still gets a second.
     * @return whether the library says that all of it succeeded
     */
    bool finish(std::chrono::milliseconds writer_limit);

private:
    void open_step_by_step(const RecordingSettings& settings);
    void open_in_one_call(const RecordingSettings& settings);
    void wait_for_first_picture() const;
    bool close();

    uint32_t slot_;
    bool one_call_;
    /** of earlier recordings; 0 where nothing is counted */
    const uint64_t pictures_before_;
    bool open_ = false;
};

} // namespace client
