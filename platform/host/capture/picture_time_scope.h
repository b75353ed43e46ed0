#pragma once

#include "capture/picture_time.h"

#include <chrono>

namespace zu3host {

/**
 * While it lives, due_time_of_picture_in_callback() on this thread gives `due`. Not to be nested.
 */
class DueTimeInCallback {
public:
    explicit DueTimeInCallback(std::chrono::steady_clock::time_point due);
    ~DueTimeInCallback();
    DueTimeInCallback(const DueTimeInCallback&) = delete;
    DueTimeInCallback& operator=(const DueTimeInCallback&) = delete;
};

} // namespace zu3host
