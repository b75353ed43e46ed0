#include "multiplexer/multiplexer.h"

#include "base/host_log.h"
#include "encoder/open_encoders.h"
#include "multiplexer/access_unit.h"
#include "multiplexer/stream_timing.h"
#include "statistics/counters.h"

#include <algorithm>
#include <chrono>

namespace zu3host {

namespace {

int64_t monotonic_us()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace

uint32_t Multiplexer::set_ignore_remain(bool ignore)
{
    const std::lock_guard lock(mutex_);
    ignore_remain_ = ignore;
    return ZU_OK;
}

uint32_t Multiplexer::start()
{
    const std::lock_guard lock(mutex_);
    if (closed_)
        return ZU_INVALID_ARGUMENT;
    if (!running_ && sound_)
        sound_->listen(make_pcm_reader());
    running_ = true;
    return ZU_OK;
}

uint32_t Multiplexer::stop()
{
    const std::lock_guard lock(mutex_);
    if (!ignore_remain_)
        finish_sound();
    running_ = false;
    if (sound_) {
        sound_->queue().clear();
        sound_->listen(nullptr);
    }
    return ZU_OK;
}

uint32_t Multiplexer::push(uint32_t handle, const ZU_TSMUX_MediaData_t& data)
{
    uint32_t result = ZU_FAILURE;
    bool report = false;
    {
        const std::lock_guard lock(mutex_);
        result = push_locked(data);
        report = result == ZU_BUSY && !full_reported_;
        set_full(result == ZU_BUSY);
    }
    if (result == ZU_BUSY)
        count(counters().multiplexer_busy);
    if (report)
        callback_.call(handle, E_ZU_TSMUX_EVENT_OUTPUT_BUFFER_FULL);
    return result;
}

void Multiplexer::set_full(bool full)
{
    if (full && !full_reported_)
        counters().full_multiplexers.fetch_add(1, std::memory_order_relaxed);
    else if (!full && full_reported_)
        counters().full_multiplexers.fetch_sub(1, std::memory_order_relaxed);
    full_reported_ = full;
}

uint32_t Multiplexer::push_locked(const ZU_TSMUX_MediaData_t& data)
{
    if (closed_ || !running_)
        return ZU_FAILURE;
    if (data.u64MuxSrcId == 0 || data.u64MuxSrcId != pictures_id_)
        // sound is gathered here, nobody pushes it
        return ZU_INVALID_ARGUMENT;
    if (!data.pu8Data || data.u32DataSize == 0)
        return ZU_INVALID_ARGUMENT;
    if (writer_.greatest_picture_packets(data.u32DataSize) > ring_.capacity()) {
        if (!oversize_reported_)
            HOST_LOGE(
                "A picture of %u bytes is greater than the multiplexer's whole output buffer.",
                data.u32DataSize);
        oversize_reported_ = true;
        return ZU_FAILURE;
    }
    return write_picture(data);
}

uint64_t Multiplexer::end_of_picture(int64_t pts) const
{
    return static_cast<uint64_t>(pts) * 300 - picture_lead(writer_.constant_rate());
}

uint32_t Multiplexer::write_picture(const ZU_TSMUX_MediaData_t& data)
{
    const auto host_us = time_of_frame_in_callback();
    const PictureClock::Stamp stamp = clock_.stamp(host_us, data.u64Pts);
    const int64_t capture_us = host_us ? static_cast<int64_t>(*host_us) : monotonic_us();
    const int64_t pts = first_pts(start_, writer_.constant_rate()) + stamp.ticks;
    const std::span<const uint8_t> unit{data.pu8Data, data.u32DataSize};
    if (sound_ && sound_->begun())
        sound_->gather(capture_us);

    const uint64_t end = end_of_picture(pts);
    const uint64_t previous_end = last_pts_ != 0 ? end_of_picture(last_pts_) : 0;
    if (!writer_.advance(std::max(previous_end, end - picture_window), queue()) ||
        ring_.free_packets() < writer_.greatest_picture_packets(unit.size()))
        return ZU_BUSY;

    writer_.write_picture({unit, pts, is_random_access_unit(unit)}, end, queue());
    clock_.commit(stamp);
    last_pts_ = pts;
    last_capture_us_ = capture_us;
    if (sound_ && !sound_->begun())
        sound_->begin(capture_us, pts);
    warn_of_lateness(pts);
    return ZU_OK;
}

void Multiplexer::warn_of_lateness(int64_t pts)
{
    if (lateness_reported_ || writer_.now() <= static_cast<uint64_t>(pts) * 300)
        return;
    HOST_LOGW(
        "The constant rate of %u bit/s is too low for these pictures: they arrive after their time.",
        params_.u32CbrBitrate);
    lateness_reported_ = true;
}

void Multiplexer::pump()
{
    if (!sound_)
        return;
    if (!pictures_announced_) {
        pump_sound_only();
        return;
    }
    if (!sound_->begun())
        return;
    sound_->gather(last_capture_us_);
    writer_.advance(end_of_picture(last_pts_), queue());
}

void Multiplexer::pump_sound_only()
{
    const int64_t now = monotonic_us();
    if (!sound_->begun())
        sound_->begin(now, static_cast<int64_t>((start_ + sound_lead) / 300) + 3000);
    sound_->gather(now);
    if (sound_->queue().empty())
        return;
    // A little before the newest frame is due, so that this one moves the stream next time.
    const auto heard = static_cast<uint64_t>(sound_->queue().back_pts()) * 300;
    writer_.advance(heard - std::min(heard, sound_lead) + 1, queue());
}

void Multiplexer::finish_sound()
{
    if (!running_ || !sound_ || !sound_->begun() || !pictures_announced_)
        return;
    sound_->gather(last_capture_us_);
    writer_.advance(end_of_picture(last_pts_), queue());
    writer_.flush_sound(sound_->queue(), last_pts_);
}

uint32_t Multiplexer::copy_out(uint8_t* dst, uint32_t max_bytes, uint32_t& copied)
{
    const std::lock_guard lock(mutex_);
    copied = 0;
    if (closed_)
        return ZU_INVALID_ARGUMENT;
    if (running_)
        pump();
    copied = static_cast<uint32_t>(ring_.copy_out(dst, max_bytes));
    count(counters().bytes_copied_out, copied);
    return ZU_OK;
}

void Multiplexer::close()
{
    callback_.remove_any();
    const std::lock_guard lock(mutex_);
    closed_ = true;
    running_ = false;
    set_full(false);
    sound_.reset();
    budget_.set(0);
    region_.reset();
}

} // namespace zu3host
