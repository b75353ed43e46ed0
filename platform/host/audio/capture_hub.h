#pragma once

namespace zu3host {

/**
 * A started audio capture: while at least one lives, the process listens. Throws std::bad_alloc or
 * std::system_error when it cannot.
 */
class CaptureUse {
public:
    CaptureUse();
    CaptureUse(const CaptureUse&) = delete;
    CaptureUse& operator=(const CaptureUse&) = delete;
    ~CaptureUse();
};

} // namespace zu3host
