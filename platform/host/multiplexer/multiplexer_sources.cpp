// What a multiplexer is opened with, and the sources and attributes that it is given before it
// runs.
#include "base/host_log.h"
#include "multiplexer/multiplexer.h"
#include "multiplexer/stream_timing.h"

#include <algorithm>
#include <bitstream/mpeg/pes.h>
#include <bitstream/mpeg/psi.h>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace zu3host {

namespace {

/** Below this, packets are too far apart to keep the time references within 40 ms. */
constexpr uint32_t least_constant_rate = 500000;
constexpr size_t least_ring_packets = 64;

bool valid_pid(uint16_t pid)
{
    return pid >= 0x10 && pid <= 0x1ffe;
}

bool valid_params(const ZU_TSMUX_OpenParams_t& params)
{
    if (params.u32TsPacketSize != ts_packet_bytes &&
        params.u32TsPacketSize != timed_ts_packet_bytes) {
        HOST_LOGE("A transport-stream packet has 188 or 192 bytes, not %u.",
                  params.u32TsPacketSize);
        return false;
    }
    if (params.bCbrEnable && params.u32CbrBitrate < least_constant_rate) {
        HOST_LOGE("A constant rate of %u bit/s is too low for a stream; the least is %u.",
                  params.u32CbrBitrate, least_constant_rate);
        return false;
    }
    if (params.u32OutBufSize / params.u32TsPacketSize < least_ring_packets) {
        HOST_LOGE("The multiplexer's output buffer of %u bytes is too small.",
                  params.u32OutBufSize);
        return false;
    }
    if (!valid_pid(params.u16Pid0) || !valid_pid(params.u16Pid3) ||
        params.u16Pid0 == params.u16Pid3) {
        HOST_LOGE("0x%x and 0x%x cannot be the PIDs of map and time.", params.u16Pid0,
                  params.u16Pid3);
        return false;
    }
    return true;
}

/**
 * The first time reference: as if the stream had run for the seconds that the environment gives.
 */
uint64_t start_of_streams()
{
    const char* const text = std::getenv("ZU3_STREAM_START");
    if (!text)
        return stream_start;
    uint32_t seconds = 0;
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, seconds);
    if (error == std::errc{} && stop == end)
        return stream_start + seconds * system_clock_hz;
    HOST_LOGW("ZU3_STREAM_START is no number of seconds (\"%s\"); it is ignored.", text);
    return stream_start;
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

} // namespace zu3host
