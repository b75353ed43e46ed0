#pragma once

#include <optional>
#include <string>

#include "files/output_file.h"
#include "process/signals.h"

namespace client {

/**
 * Looks whether an ordinary output file is still what its path leads to. Others may rename it,
 * which costs nothing, or remove, replace or cut it, which loses what was recorded: then there is
 * no sense in going on.
 */
class OutputWatch {
public:
    /** Made before anything is written; `file` outlives it. */
    explicit OutputWatch(const OutputFile& file);

    /**
     * Why what was recorded is lost, as a sentence; nothing while it is not. Looks once a second,
     * however often it is asked, and says when the file has got another name.
     */
    std::optional<std::string> problem();
    /** The same behind the last write, with a closer look; at most once. */
    std::optional<std::string> problem_at_end();
    /**
     * Call it before each write if the number of written bytes is known: it detects at once that
     * another program has cut the file. Otherwise problem() searches for holes, which some file
     * systems also make of written zeros.
     */
    void expect_size(uint64_t bytes);
    /** The file's name of late; empty when it has none that is known. */
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
