#include "running/encoded_stream.h"

#include <algorithm>

#include "machine/host.h"
#include "process/messages.h"
#include "running/library_log.h"
#include "running/watermark.h"
#include <screenrecord/screenrecord.h>

namespace client {
namespace {

// A tenth of a bit per pixel keeps text sharp in ordinary use of a screen.
uint32_t sensible_bit_rate(Size size, uint32_t fps)
{
    const double rate = double(size.width) * size.height * fps / 10;
    return static_cast<uint32_t>(std::clamp(rate, 300e3, 20e6));
}

// Above the limit of every level: the encoder chooses.
constexpr uint32_t no_bit_rate = UINT32_MAX;

} // namespace

EncodedStream::EncodedStream(const StreamOptions& options, Size size, StopSignals& signals,
                             std::string purpose)
    : purpose_(std::move(purpose)),
      bit_rate_(options.bit_rate.value_or(sensible_bit_rate(size, options.fps))),
      buffer_(video_capenc_getMaxEsSize())
{
    if (options.quality && want_quality(*options.quality, greatest_bit_rate))
        quality_ = options.quality;
    CapEnc_OpenParams params = {.width = size.width,
                                .height = size.height,
                                .frameRate = options.fps,
                                .outputBitrate = quality_ ? no_bit_rate : bit_rate_,
                                .profile = options.profile,
                                .level = options.level,
                                .osd = options.osd};
    const bool exact = want_exact_size(size.width, size.height);
    if (video_capenc_open(&params) != 0) {
        video_capenc_close();
        throw library_failure(
            purpose_ +
            ": the library refused to open capture and encoder with this size, rate, profile and level");
    }
    forget_library_log();
    size_ = exact ? size : Size{params.width, params.height};
    try {
        start(options.watermark, signals);
    } catch (const Failure&) {
        video_capenc_close();
        throw;
    }
}

void EncodedStream::start(const WatermarkOptions& watermark, StopSignals& signals)
{
    if (!watermark.image.empty()) {
        WatermarkChange change(watermark);
        if (!change.reading().wait(signals, Clock::duration::zero()))
            throw Failure("cannot read the picture " + watermark.image +
                          ": stopped before it was read");
        change.apply();
    }
    if (video_capenc_start(0) != 0)
        throw library_failure(purpose_ + ": the library refused to start");
    running_ = true;
}

EncodedStream::~EncodedStream()
{
    stop();
    video_capenc_close();
}

std::string EncodedStream::aim() const
{
    return quality_ ? format_text("quality %u", *quality_) : format_text("%u bit/s", bit_rate_);
}

bool EncodedStream::take(EncodedFrame& frame)
{
    CapEnc_EsInfo info = {};
    if (video_capenc_getES(buffer_.data(), buffer_.size(), &info) != 0 || info.u64DataSize == 0)
        return false;
    frame = {.bytes = {buffer_.data(), info.u64DataSize},
             .pts_us = info.u64Pts,
             .key = info.bKeyFrame != 0};
    return true;
}

void EncodedStream::stop()
{
    if (running_)
        video_capenc_stop();
    running_ = false;
}

} // namespace client
