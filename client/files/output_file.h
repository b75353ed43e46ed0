#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "process/signals.h"
#include <common/descriptor.h>
#include <common/trusted_path.h>

namespace client {

/** The name of the process that writes a status file. */
inline constexpr const char* status_writer_name = "status writer";

/** Whether the path is "-" or another name of standard output. */
bool is_standard_output(const std::string& path);

/**
 * Checks that `path` can become an output file. Throws Failure for a folder, a place that is not
 * writable, a symbolic link, a file or pipe of another user, an existing file without `overwrite`,
 * and a file that is being recorded. Creates nothing.
 */
void check_output_path(const std::string& path, bool overwrite);
/** The same, but accepts standard output. Returns the path. */
std::string checked_output(const std::string& path, bool overwrite);

/**
 * The same for an AtomicFile, whose rename replaces an existing file: that must be an ordinary one.
 */
void check_whole_file_path(const std::string& path, bool overwrite);

/**
 * Renames a file within a folder to a name that is not in use. Returns -1 with errno, EEXIST if it
 * is in use.
 */
int rename_to_free_name(int folder, const char* from, const char* to);

/**
 * An output file under its final name, filled over time and locked meanwhile: a new file for its
 * owner alone (mode 0600), an existing one of the user, which is emptied if `overwrite` allows it
 * and keeps its mode, or a named pipe of the user. A new file that is empty at the end is removed.
 */
class OutputFile {
public:
    /**
     * Waits for the reader of a named pipe until a stop is requested. Throws Failure as
     * check_output_path() does, and if the file cannot be created.
     */
    OutputFile(std::string path, bool overwrite, StopSignals& signals);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile();

    int fd() const { return fd_.get(); }
    const std::string& path() const { return path_; }
    /**
     * A name that opens the same file again in this process, even if the path leads to another file
     * by then.
     */
    std::string path_to_reopen() const;
    /** Bytes in the file now; 0 if it is not a regular file. */
    uint64_t size() const;
    /** Whether it is an ordinary file, not a pipe or a device. */
    bool regular() const { return S_ISREG(kind_); }
    bool named_pipe() const { return S_ISFIFO(kind_); }
    /**
     * Leaves a new file that is empty at the end: its disk does not respond, and a removal would
     * keep the process, even one that is killed.
     */
    void leave();

private:
    void open_existing(bool overwrite, StopSignals& signals);
    void open_named_pipe(StopSignals& signals);
    bool has_its_name() const;

    std::string path_;
    common::TrustedPath place_;
    common::Descriptor fd_;
    mode_t kind_ = 0;
    bool created_ = false;
};

/**
 * Replaces a file as a whole: writes beside it, then renames, so no reader sees half a file and a
 * failure leaves the old one. Locks the file of this name from construction to destruction.
 */
class AtomicFile {
public:
    /**
     * Throws Failure if no file can be created beside `path`, or if the existing one is not an
     * ordinary file of the user. The new file has mode 0600.
     */
    explicit AtomicFile(std::string path);
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;
    ~AtomicFile();

    /** Writes all bytes; after put_in_place() they begin the next content. Throws Failure. */
    void write(const void* data, size_t size);
    /**
     * Descriptor of the first content, open to read and write, for a writer that uses it directly.
     */
    int fd() const { return fd_.get(); }
    /**
     * Gives the content its name; replaces an existing file only with `overwrite`. Throws Failure.
     */
    void put_in_place(bool overwrite);

private:
    void begin();

    std::string path_;
    std::optional<common::TrustedPath> place_;
    /** temporary name in the same folder; empty = no file has it */
    std::string beside_;
    /** of the temporary file */
    common::Descriptor fd_;
    /** of the file in place, which it keeps locked */
    common::Descriptor in_place_;
};

} // namespace client
