#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "command_line/options.h"
#include "machine/host.h"
#include "process/signals.h"

namespace client {

/** One recording of the library, from its opening to its close. Closes it if a step fails. */
class Recording {
public:
    /**
     * Longest wait for a writer that is behind. A stop must end the program within three seconds; a
     * time limit can wait longer.
     */
    static constexpr std::chrono::milliseconds patience_of_a_stop{2000},
        patience_at_the_end{15'000};

    /**
     * Opens and starts it; throws Failure.
     * @param file the name for the library, instead of `options.output`
     * @param size of the pictures, instead of `options.size`
     */
    Recording(const RecordOptions& options, const std::string& file, Size size);
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;
    ~Recording();

    /**
     * Waits for the first picture (1.5 s at most), stops capture, waits until the writer has caught
     * up with the multiplexer (`writer_limit` at most), and closes the file. A stalled disk gets
     * one second.
     * @return whether every call of the library succeeded
     */
    bool finish(std::chrono::milliseconds writer_limit);

private:
    void open_step_by_step(const RecordOptions& options, std::string file, Size size);
    void open_in_one_call(const RecordOptions& options, std::string file, Size size);
    void wait_for_first_picture() const;
    bool close();

    uint32_t slot_;
    bool one_call_;
    StatisticsDelta statistics_;
    bool open_ = false;
};

} // namespace client
