#pragma once

#include <unistd.h>
#include <utility>

namespace common {

/** Owns a descriptor and closes it. Move-only; 0 is a descriptor like any other. */
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor()
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

} // namespace common
