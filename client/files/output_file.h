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

/** "-" and the names that mean the same. */
bool is_standard_output(const std::string& path);

/**
 * Throws Failure, with the reason, when `path` cannot become an output file: a folder, a place that
 * cannot be written, a symbolic link, another user's file or pipe, a file that exists without
 * `overwrite` or that is being recorded. Creates nothing.
 */
void check_output_path(const std::string& path, bool overwrite);

/**
 * The same for an AtomicFile, whose rename replaces the file of that name: only an ordinary file
 * may be there.
 */
void check_whole_file_path(const std::string& path, bool overwrite);

/**
 * An output file under its final name, filled as time goes by and locked meanwhile. Created by us,
 * for its owner alone, or one of the user's own that was there, emptied where `overwrite` allows
 * it, with the mode that it had; one that we created and that is still empty at the end is removed
 * again. Or a named pipe of the user's own.
 */
class OutputFile {
public:
    /**
     * Waits for the reader of a named pipe until a stop is asked for. Throws Failure as
     * check_output_path() does, and when the file cannot be created.
     */
    OutputFile(std::string path, bool overwrite, StopSignals& signals);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile();

    int fd() const { return fd_.get(); }
    const std::string& path() const { return path_; }
    /**
     * A name under which this process opens the same file again, even if the path leads to another
     * file by then.
     */
    std::string path_to_reopen() const;
    /** Bytes in the file now; 0 if it is not a regular file. */
    uint64_t size() const;
    /** Whether it is an ordinary file, as against a pipe or a device. */
    bool regular() const { return S_ISREG(kind_); }
    bool named_pipe() const { return S_ISFIFO(kind_); }

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
 * Puts a whole file in place at once: written beside it, then renamed, so that no reader ever sees
 * half of it and a failure leaves what was there before. The file that has the name is locked, from
 * the beginning and from one content to the next.
 */
class AtomicFile {
public:
    /**
     * Throws Failure when nothing can be created beside `path`, or what is there is no ordinary
     * file or not the user's. Only its owner may read it.
     */
    explicit AtomicFile(std::string path);
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;
    ~AtomicFile();

    /** Writes all of it, of the next content after put_in_place(); throws Failure. */
    void write(const void* data, size_t size);
    /** The first content, for a writer with its own means; open to read and write. */
    int fd() const { return fd_.get(); }
    /** Gives it its name, in place of a file of that name only with `overwrite`; throws Failure. */
    void put_in_place(bool overwrite);

private:
    void begin();

    std::string path_;
    std::optional<common::TrustedPath> place_;
    /** name in the same folder; empty = nothing is there */
    std::string beside_;
    /** of what is beside */
    common::Descriptor fd_;
    /** holds the lock of what has the name */
    common::Descriptor in_place_;
};

} // namespace client
