#pragma once

#include <unistd.h>
#include <utility>

namespace zu3host {

/** Owns a descriptor and closes it. Move-only; 0 is a descriptor like any other. */
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~FileDescriptor()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }

    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }
    /** Gives the descriptor away; the caller closes it. */
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
};

} // namespace zu3host
