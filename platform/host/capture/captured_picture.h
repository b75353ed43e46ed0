#pragma once

#include "base/picture_layout.h"

#include <cstdint>
#include <memory>

namespace zu3host {

/** A picture in memory of a capture's own, which lives as long as `memory` is held. */
struct CapturedPicture {
    uint8_t* data = nullptr;
    PictureLayout layout{};
    std::shared_ptr<const void> memory;
    /** pictures with the same number, unless it is 0, look the same */
    uint64_t serial = 0;
};

/**
 * On a capture's thread, while its callback runs: the picture in the callback. Null on any other
 * thread, and where the capture writes into memory that is not its own. Who leases it
 * (picture_leases.h) may read it after the callback has given the buffer back.
 */
const CapturedPicture* captured_picture_in_callback();

/**
 * While it lives, captured_picture_in_callback() on this thread gives `picture`. Not to be nested.
 */
class CapturedPictureInCallback {
public:
    explicit CapturedPictureInCallback(const CapturedPicture& picture);
    ~CapturedPictureInCallback();
    CapturedPictureInCallback(const CapturedPictureInCallback&) = delete;
    CapturedPictureInCallback& operator=(const CapturedPictureInCallback&) = delete;
};

} // namespace zu3host
