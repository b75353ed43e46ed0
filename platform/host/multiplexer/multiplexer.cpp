#include "multiplexer/multiplexer.h"

#include "encoder/open_encoders.h"
#include "log/host_log.h"
#include "multiplexer/access_unit.h"
#include "statistics/counters.h"

#include <algorithm>
#include <bitstream/mpeg/pes.h>
#include <bitstream/mpeg/psi.h>
#include <chrono>
#include <limits>

namespace zu3host {

namespace {

/** The first time reference: small, and greater than nothing, so that no sum before it runs below zero. */
constexpr uint64_t stream_start = system_ticks_of_ms(100);
/** Over how much of the stream a picture is spread at most, and before its end begins at the earliest. */
constexpr uint64_t picture_window = system_ticks_of_ms(100);
/**
 * How long a picture is complete before it is due. At a constant rate a large picture takes its time, and
 * what a decoder must hold stays below one second with the window above.
 */
constexpr uint64_t variable_rate_lead = system_ticks_of_ms(300);
constexpr uint64_t constant_rate_lead = system_ticks_of_ms(900);
/** A decoder holds 3584 bytes of stereo AAC (2.4.2.6), which is 224 ms at 128 kbit/s. */
constexpr uint64_t sound_lead = system_ticks_of_ms(200);
/** Below this, packets are too far apart to keep the time references within 40 ms. */
constexpr uint32_t least_constant_rate = 500000;
constexpr size_t least_ring_packets = 64;

int64_t monotonic_us()
{
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

uint64_t picture_lead(bool constant_rate)
{
    return constant_rate ? constant_rate_lead : variable_rate_lead;
}

int64_t first_pts(bool constant_rate)
{
    return static_cast<int64_t>((stream_start + picture_window + picture_lead(constant_rate)) / 300);
}

bool valid_pid(uint16_t pid)
{
    return pid >= 0x10 && pid <= 0x1ffe;
}

bool valid_params(const ZU_TSMUX_OpenParams_t& params)
{
    if (params.u32TsPacketSize != ts_packet_bytes && params.u32TsPacketSize != timed_ts_packet_bytes) {
        HOST_LOGE("A transport-stream packet has 188 or 192 bytes, not %u.", params.u32TsPacketSize);
        return false;
    }
    if (params.bCbrEnable && params.u32CbrBitrate < least_constant_rate) {
        HOST_LOGE("A constant rate of %u bit/s is too low for a stream; the least is %u.",
                  params.u32CbrBitrate, least_constant_rate);
        return false;
    }
    if (params.u32OutBufSize / params.u32TsPacketSize < least_ring_packets) {
        HOST_LOGE("The multiplexer's output buffer of %u bytes is too small.", params.u32OutBufSize);
        return false;
    }
    if (!valid_pid(params.u16Pid0) || !valid_pid(params.u16Pid3) || params.u16Pid0 == params.u16Pid3) {
        HOST_LOGE("0x%x and 0x%x cannot be the PIDs of map and time.", params.u16Pid0, params.u16Pid3);
        return false;
    }
    return true;
}

} // namespace

std::shared_ptr<Multiplexer> Multiplexer::open(const ZU_TSMUX_OpenParams_t& params)
{
    if (!valid_params(params))
        return nullptr;
    auto region = OutputRegion::claim(params.u32OutBufVa, params.u32OutBufSize);
    return region ? std::make_shared<Multiplexer>(params, std::move(region)) : nullptr;
}

Multiplexer::Multiplexer(const ZU_TSMUX_OpenParams_t& params, std::unique_ptr<OutputRegion> region)
    : params_(params), region_(std::move(region)), ring_(region_->memory(), params.u32TsPacketSize),
      writer_(ring_, stream_start, params.bCbrEnable ? params.u32CbrBitrate : 0)
{
    writer_.pictures().pid = params.u16Pid3;
    writer_.set_sound_lead(sound_lead);
    writer_.set_program(params.u16Pid0, streams_);
    update_budget();
}

void Multiplexer::update_budget()
{
    if (params_.bCbrEnable)
        budget_.set(picture_budget(params_.u32CbrBitrate, sound_ != nullptr));
}

bool Multiplexer::usable_pid(uint16_t pid) const
{
    const auto same = [pid](const ProgramStream& stream) { return stream.pid == pid; };
    if (valid_pid(pid) && pid != params_.u16Pid0 && std::none_of(streams_.begin(), streams_.end(), same))
        return true;
    HOST_LOGE("0x%x is no PID for a stream of this program.", pid);
    return false;
}

void Multiplexer::announce(uint8_t stream_type, uint16_t pid)
{
    streams_.push_back({stream_type, pid});
    writer_.set_program(params_.u16Pid0, streams_);
}

uint32_t Multiplexer::attach(const ZU_TSMUX_MediaSourceParams_t& params, uint64_t& source_id)
{
    const std::lock_guard lock(mutex_);
    uint32_t result = ZU_INVALID_ARGUMENT;
    if (closed_)
        return result;
    if (running_ || writer_.now() != stream_start) {
        HOST_LOGE("Sources are attached before the multiplexer is started, since its tables never change.");
        return ZU_FAILURE;
    }
    switch (params.eStreamType) {
    case E_ZU_TSMUX_STREAM_VIDEO_H264:
        result = attach_pictures(params);
        break;
    case E_ZU_TSMUX_STREAM_AUDIO_MP3:
    case E_ZU_TSMUX_STREAM_AUDIO_AAC:
        result = attach_sound(params);
        break;
    default:
        HOST_LOGE("Streams of type 0x%x cannot be multiplexed; pictures must be H.264.", params.eStreamType);
    }
    if (result == ZU_OK)
        source_id = next_id_++;
    if (result == ZU_OK && params.eStreamType == E_ZU_TSMUX_STREAM_VIDEO_H264)
        pictures_id_ = source_id;
    else if (result == ZU_OK)
        sound_id_ = source_id;
    return result;
}

uint32_t Multiplexer::attach_pictures(const ZU_TSMUX_MediaSourceParams_t& params)
{
    if (pictures_announced_) {
        HOST_LOGE("This multiplexer has had its pictures attached already.");
        return ZU_FAILURE;
    }
    if (!usable_pid(params.u16Pid) || (params.u8StreamId & 0xf0) != PES_STREAM_ID_VIDEO_MPEG)
        return ZU_INVALID_ARGUMENT;
    pictures_announced_ = true;
    writer_.pictures().pid = params.u16Pid;
    writer_.pictures().stream_id = params.u8StreamId;
    announce(PMT_STREAMTYPE_VIDEO_AVC, params.u16Pid);
    return ZU_OK;
}

uint32_t Multiplexer::attach_sound(const ZU_TSMUX_MediaSourceParams_t& params)
{
    if (sound_id_ != 0 || sound_) {
        HOST_LOGE("This multiplexer has had its sound attached already.");
        return ZU_FAILURE;
    }
    if (!usable_pid(params.u16Pid) || params.u16Pid == params_.u16Pid3 ||
        (params.u8StreamId & 0xe0) != PES_STREAM_ID_AUDIO_MPEG)
        return ZU_INVALID_ARGUMENT;
    if (params.eStreamType == E_ZU_TSMUX_STREAM_AUDIO_MP3) {
        HOST_LOGW("There is no MP3 encoder; the recording carries no sound.");
        return ZU_OK;
    }
    auto sound = SoundTrack::open();
    if (!sound)
        return ZU_FAILURE;
    sound_ = std::move(sound);
    writer_.sound() = {params.u16Pid, params.u8StreamId, 15};
    announce(PMT_STREAMTYPE_AUDIO_ADTS, params.u16Pid);
    update_budget();
    return ZU_OK;
}

uint32_t Multiplexer::detach(uint64_t source_id)
{
    const std::lock_guard lock(mutex_);
    if (closed_ || source_id == 0 || (source_id != pictures_id_ && source_id != sound_id_))
        return ZU_INVALID_ARGUMENT;
    finish_sound();
    if (source_id == pictures_id_) {
        pictures_id_ = 0;
        return ZU_OK;
    }
    sound_id_ = 0;
    if (sound_) {
        sound_->queue().clear();
        sound_->listen(nullptr);
    }
    return ZU_OK;
}

uint32_t Multiplexer::set_interleaving(const ZU_TSMUX_AvInterleaving_t& value)
{
    const std::lock_guard lock(mutex_);
    const uint64_t lead = picture_lead(writer_.constant_rate());
    uint64_t apart = value.bEnable ? system_ticks_of_ms(value.u32LeavingTimeMs) : lead;
    apart = std::min(apart, lead);
    writer_.set_sound_lead(std::max(sound_lead, lead - apart));
    return ZU_OK;
}

uint32_t Multiplexer::set_continuity(const ZU_TSMUX_PtsContinuity_t& value)
{
    const std::lock_guard lock(mutex_);
    constexpr uint64_t unlimited = std::numeric_limits<int64_t>::max();
    const uint64_t forward = value.bEnable ? value.u64MaxForward : unlimited;
    const uint64_t backward = value.bEnable ? value.u64MaxBackward : unlimited;
    clock_.set_limits(static_cast<int64_t>(std::min(forward, unlimited)),
                      static_cast<int64_t>(std::min(backward, unlimited)));
    return ZU_OK;
}

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
    if (!running_ && sound_ && sound_id_ != 0)
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
        full_reported_ = result == ZU_BUSY;
    }
    if (result == ZU_BUSY)
        count(counters().multiplexer_busy);
    if (report)
        callback_.call(handle, E_ZU_TSMUX_EVENT_OUTPUT_BUFFER_FULL);
    return result;
}

uint32_t Multiplexer::push_locked(const ZU_TSMUX_MediaData_t& data)
{
    if (closed_ || !running_)
        return ZU_FAILURE;
    if (data.u64MuxSrcId == 0 || data.u64MuxSrcId != pictures_id_)
        return ZU_INVALID_ARGUMENT; // sound is gathered here, nobody pushes it
    if (!data.pu8Data || data.u32DataSize == 0)
        return ZU_INVALID_ARGUMENT;
    if (writer_.greatest_picture_packets(data.u32DataSize) > ring_.capacity()) {
        if (!oversize_reported_)
            HOST_LOGE("A picture of %u bytes is greater than the multiplexer's whole output buffer.",
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
    const int64_t pts = first_pts(writer_.constant_rate()) + stamp.ticks;
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
    HOST_LOGW("The constant rate of %u bit/s is too low for these pictures: they arrive after their time.",
              params_.u32CbrBitrate);
    lateness_reported_ = true;
}

void Multiplexer::pump()
{
    if (!sound_ || sound_id_ == 0)
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
        sound_->begin(now, static_cast<int64_t>((stream_start + sound_lead) / 300) + 3000);
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
    sound_.reset();
    budget_.set(0);
    region_.reset();
}

} // namespace zu3host
