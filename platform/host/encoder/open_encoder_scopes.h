#pragma once

#include "encoder/open_encoders.h"

namespace zu3host {

/** While it lives, exact_size_of_open_encoder() knows the size. Thread-safe. */
class OpenSize {
public:
    explicit OpenSize(PictureSize size);
    ~OpenSize();
    OpenSize(const OpenSize&) = delete;
    OpenSize& operator=(const OpenSize&) = delete;

private:
    const PictureSize size_;
};

/** While it lives, time_of_frame_in_callback() on this thread gives `time`. Not to be nested. */
class FrameTimeInCallback {
public:
    explicit FrameTimeInCallback(uint64_t time);
    ~FrameTimeInCallback();
    FrameTimeInCallback(const FrameTimeInCallback&) = delete;
    FrameTimeInCallback& operator=(const FrameTimeInCallback&) = delete;
};

} // namespace zu3host
