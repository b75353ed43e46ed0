#pragma once

#include "audio/capture_session.h"
#include "audio/pcm_reader.h"

#include <memory>

namespace zu3host {

/** Reads session after session: what is left of a finished one, then the next from its start on. */
class SessionReader final : public PcmReader {
public:
    using Current = std::shared_ptr<CaptureSession> (*)();

    /** @param current tells the session that runs, null when none does */
    explicit SessionReader(Current current);

    size_t level() override;
    size_t read(void* dst, size_t size) override;
    int64_t time_of_next_us() override;

private:
    int64_t waiting();
    void lose(int64_t frames);

    const Current current_;
    std::shared_ptr<CaptureSession> session_;
    int64_t position_ = 0;
};

} // namespace zu3host
