#include "multiplexer/multiplexer.h"

#include "base/host_log.h"
#include "multiplexer/stream_clock.h"
#include "picture/picture_in_flight.h"
#include "statistics/counters.h"

#include <algorithm>
#include <bitstream/mpeg/pes.h>
#include <bitstream/mpeg/psi.h>
#include <common/clock.h>
#include <cstring>
#include <limits>

namespace zu3host {

namespace {

/** An AAC frame of 341 bytes fills two packets, 46.875 times a second. */
constexpr uint64_t sound_rate = 141000;

/** The rate that tables, packet headers and sound leave for pictures. */
uint64_t picture_budget(uint64_t stream_rate, bool with_sound)
{
    const uint64_t left =
        with_sound ? stream_rate - std::min(stream_rate / 2, sound_rate) : stream_rate;
    return left * 85 / 100;
}

enum NalType : uint8_t { slice = 1, slice_idr = 5 };

/**
 * Whether decoding can start at this H.264 access unit: its first slice is one of an IDR picture
 * (Annex B).
 */
bool is_random_access_unit(std::span<const uint8_t> unit)
{
    const uint8_t* at = unit.data();
    const uint8_t* const end = at + unit.size();
    while (end - at >= 4) {
        at = static_cast<const uint8_t*>(std::memchr(at + 2, 1, static_cast<size_t>(end - at - 3)));
        if (!at)
            return false;
        const bool start_code = at[-1] == 0 && at[-2] == 0;
        const uint8_t type = at[1] & 0x1f;
        if (start_code && type >= slice && type <= slice_idr)
            return type == slice_idr;
        --at;
    }
    return false;
}

} // namespace

std::shared_ptr<Multiplexer> Multiplexer::open(const ZU_TSMUX_OpenParams_t& params)
{
    auto region = OutputRegion::claim(params.u32OutBufVa, params.u32OutBufSize);
    return region ? std::make_shared<Multiplexer>(params, std::move(region)) : nullptr;
}

Multiplexer::Multiplexer(const ZU_TSMUX_OpenParams_t& params, std::unique_ptr<OutputRegion> region)
    : params_(params), start_(start_of_streams()), region_(std::move(region)),
      ring_(region_->memory(), params.u32TsPacketSize),
      writer_(ring_, start_, params.bCbrEnable ? params.u32CbrBitrate : 0)
{
    // so that to attach a source cannot fail half-way
    streams_.reserve(2);
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
    if (valid_pid(pid) && pid != params_.u16Pid0 &&
        std::none_of(streams_.begin(), streams_.end(), same))
        return true;
    HOST_LOGE("0x%x is not a valid PID for a stream of this program.", pid);
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
    if (running_ || writer_.now() != start_) {
        HOST_LOGE(
            "Sources are attached before the multiplexer is started, since its tables never change.");
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
        HOST_LOGE("Streams of type 0x%x cannot be multiplexed; pictures must be H.264.",
                  params.eStreamType);
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
        HOST_LOGE("Pictures are already attached to this multiplexer.");
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
        HOST_LOGE("Sound is already attached to this multiplexer.");
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
    sound_.reset();
    update_budget();
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
        // sound is gathered here and never pushed
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
    const PictureInFlight* const encoded = encoded_picture_in_callback();
    const auto host_us = encoded ? std::optional(encoded->time_us) : std::nullopt;
    const PictureClock::Stamp stamp = clock_.stamp(host_us, data.u64Pts);
    const int64_t capture_us = host_us ? static_cast<int64_t>(*host_us) : common::monotonic_us();
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
    if (encoded)
        encoded->multiplexed = true;
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
    const int64_t now = common::monotonic_us();
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
