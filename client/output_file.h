#pragma once

#include <cstdint>
#include <string>

#include "unique_fd.h"

namespace client {

/** "-" and the names that mean the same. */
bool is_standard_output(const std::string& path);

/** Whether two paths mean one file, there already or not yet. */
bool is_same_file(const std::string& one, const std::string& other);

/**
 * Throws Failure, with the reason, when `path` cannot become an output file: a folder, a place that cannot be
 * written, a symbolic link, a file that exists without `overwrite`. Creates nothing.
 */
void check_output_path(const std::string& path, bool overwrite);

/**
 * The same for a WholeFile, whose rename would replace whatever has that name: of what exists it takes
 * ordinary files alone.
 */
void check_whole_file_path(const std::string& path, bool overwrite);

/**
 * An output file under its final name, filled as time goes by. Created by us, for its owner alone, or one
 * that was there, emptied where `overwrite` allows it, with the mode that it had; one that we created and
 * that is still empty at the end is removed again.
 */
class OutputFile {
public:
    /** Throws Failure as check_output_path() does, and when the file cannot be created. */
    OutputFile(std::string path, bool overwrite);
    OutputFile(OutputFile&& other) noexcept = default;
    ~OutputFile();

    int fd() const { return fd_.get(); }
    const std::string& path() const { return path_; }
    /** Bytes in the file now; 0 for what is no regular file. */
    uint64_t size() const;
    /** Whether it is an ordinary file, as against a device. */
    bool regular() const;

private:
    void open_existing(bool overwrite);

    std::string path_;
    UniqueFd fd_;
    bool created_ = false;
};

/**
 * Puts a whole file in place at once: written beside it, then renamed, so that no reader ever sees half of it
 * and a failure leaves what was there before.
 */
class WholeFile {
public:
    /** Throws Failure when nothing can be created beside `path`, or what is there is no ordinary file. Only
     * its owner may read it. */
    explicit WholeFile(std::string path);
    WholeFile(const WholeFile&) = delete;
    WholeFile& operator=(const WholeFile&) = delete;
    ~WholeFile();

    /** Writes all of it; throws Failure. */
    void write(const void* data, size_t size);
    /** Gives it its name, in place of a file of that name only with `overwrite`; throws Failure. */
    void put_in_place(bool overwrite);

private:
    std::string path_;
    std::string beside_;
    UniqueFd fd_;
};

} // namespace client
