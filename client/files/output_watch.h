#pragma once

#include <optional>
#include <string>

#include "files/output_file.h"
#include "process/signals.h"

namespace client {

/**
 * Checks that the path of an ordinary output file still leads to it. If another program renames the
 * file, the recording continues. If it removes, replaces or cuts the file, the recorded data is
 * lost, and the recording should end.
 */
class OutputWatch {
public:
    /** Construct it before the first write; `file` must outlive it. */
    explicit OutputWatch(const OutputFile& file);

    /**
     * Why the recorded data is lost, as a sentence; nullopt while it is not. Checks once per
     * second, however often it is called, and prints a message if the file was renamed.
     */
    std::optional<std::string> problem();
    /** The same after the last write, with a thorough check; call it once. */
    std::optional<std::string> problem_at_end();
    /**
     * Call it before each write if the number of written bytes is known: it detects at once that
     * another program has cut the file. Otherwise problem() searches for holes, which some file
     * systems also make of written zeros.
     */
    void expect_size(uint64_t bytes);
    /** The current name of the file; empty if unknown. */
    const std::string& path() const { return path_; }

private:
    std::optional<std::string> look(bool closely);
    void follow_name();

    const OutputFile& file_;
    std::string path_;
    TimePoint next_;
    off_t size_ = 0;
    bool writer_knows_size_ = false;
    bool cut_ = false;
};

} // namespace client
