#pragma once

#include "multiplexer/event_callback.h"
#include "multiplexer/output_region.h"
#include "multiplexer/packets.h"
#include "multiplexer/picture_clock.h"
#include "multiplexer/sound_track.h"
#include "multiplexer/stream_writer.h"
#include "picture/picture_in_flight.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>
#include <zu3/tsmux.h>

namespace zu3host {

/**
 * One open multiplexer. Functions answer the contract's result codes and may be called from any
 * thread; none waits, but for a callback that is being called while it is removed.
 */
class Multiplexer {
public:
    /** @return null, with a log line, for parameters that make no stream or without memory */
    static std::shared_ptr<Multiplexer> open(const ZU_TSMUX_OpenParams_t& params);
    Multiplexer(const ZU_TSMUX_OpenParams_t& params, std::unique_ptr<OutputRegion> region);

    uint32_t attach(const ZU_TSMUX_MediaSourceParams_t& params, uint64_t& source_id);
    uint32_t detach(uint64_t source_id);
    uint32_t set_interleaving(const ZU_TSMUX_AvInterleaving_t& value);
    uint32_t set_continuity(const ZU_TSMUX_PtsContinuity_t& value);
    uint32_t set_ignore_remain(bool ignore);
    uint32_t start();
    uint32_t stop();
    /** @param handle its own handle, for the event that a full ring causes */
    uint32_t push(uint32_t handle, const ZU_TSMUX_MediaData_t& data);
    uint32_t copy_out(uint8_t* dst, uint32_t max_bytes, uint32_t& copied);
    void close();
    EventCallback& callback() { return callback_; }

private:
    uint32_t attach_pictures(const ZU_TSMUX_MediaSourceParams_t& params);
    uint32_t attach_sound(const ZU_TSMUX_MediaSourceParams_t& params);
    bool usable_pid(uint16_t pid) const;
    void announce(uint8_t stream_type, uint16_t pid);
    void update_budget();
    void set_full(bool full);
    uint32_t push_locked(const ZU_TSMUX_MediaData_t& data);
    uint32_t write_picture(const ZU_TSMUX_MediaData_t& data);
    void pump();
    void pump_sound_only();
    void finish_sound();
    void warn_of_lateness(int64_t pts);
    uint64_t end_of_picture(int64_t pts) const;
    SoundQueue* queue() { return sound_ ? &sound_->queue() : nullptr; }

    const ZU_TSMUX_OpenParams_t params_;
    /** the first time reference */
    const uint64_t start_;
    std::mutex mutex_;
    std::unique_ptr<OutputRegion> region_;
    PacketRing ring_;
    StreamWriter writer_;
    PictureClock clock_;
    RateBudget budget_;
    EventCallback callback_;
    std::unique_ptr<SoundTrack> sound_;
    std::vector<ProgramStream> streams_;
    /** 0 = not attached */
    uint64_t pictures_id_ = 0;
    uint64_t sound_id_ = 0;
    uint64_t next_id_ = 1;
    bool pictures_announced_ = false;
    bool running_ = false;
    bool closed_ = false;
    bool ignore_remain_ = false;
    bool full_reported_ = false;
    bool lateness_reported_ = false;
    bool oversize_reported_ = false;
    /** of the last picture; 0 = none yet */
    int64_t last_pts_ = 0;
    /** when it was captured, monotonic clock */
    int64_t last_capture_us_ = 0;
};

} // namespace zu3host
