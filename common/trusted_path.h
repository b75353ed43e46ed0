#pragma once

#include <string>
#include <sys/stat.h>

#include "common/descriptor.h"

namespace common {

/**
 * The end of a path: the folder that it leads to, kept open, and the name in it. The checks here
 * and a later open use the same folder, even if the path changes in between.
 *
 * A symbolic link at the end is followed only if no other user can have made it: the kernel makes
 * those in /proc, and only root those in /dev. That is judged by the folder itself, so
 * "/proc/self/cwd/link" is a link in the current folder, and not one of the kernel's.
 */
class TrustedPath {
public:
    /** If the folder cannot be opened, error() has the reason. */
    explicit TrustedPath(const std::string& path);

    /** An errno value; 0 when the folder is there. */
    int error() const { return error_; }
    /** For the calls that take a folder and a name, such as renameat(). */
    int folder() const { return folder_.get(); }
    /** The last part of the path; empty if that ends in a slash. */
    const std::string& name() const { return name_; }
    /** Whether it is one of the kernel's links to a process's open files. */
    bool in_proc() const { return in_proc_; }

    /** Like stat(2), but of the link itself if it is not trusted; 0, or -1 and errno. */
    int status(struct stat& found) const;
    /** Like open(2) of an existing file, close-on-exec; ELOOP for an untrusted link. */
    Descriptor open(int flags) const;
    /**
     * Creates a file of mode 0600, regardless of the umask; EEXIST if the name exists.
     */
    Descriptor create_private(int flags) const { return create_beside(name_, flags); }
    /** The same, of another name in the same folder. */
    Descriptor create_beside(const std::string& name, int flags) const;

private:
    void lead_to(int start, const std::string& path);

    Descriptor folder_;
    std::string name_;
    int error_ = 0;
    bool in_proc_ = false;
};

/** Why an existing file must not be written to. */
enum class Objection {
    none,
    folder,
    /** an ordinary file or a named pipe of another user, which that user reads */
    foreign,
    /** a block device or a socket */
    special,
};

/** Judges what fstat(2) or TrustedPath::status() found. A character device is of root's making. */
Objection objection_to_write(const struct stat& found);

/** Whether both are one file. */
bool is_one_file(const struct stat& one, const struct stat& other);

} // namespace common
