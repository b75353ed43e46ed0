#include "running/encoded_stream.h"

#include <algorithm>

#include "machine/host.h"
#include "process/messages.h"
#include "running/attended_display.h"
#include "running/library_log.h"
#include <common/encoder_limits.h>
#include <screenrecord/screenrecord.h>
#include <srglworker/SrGlWorker.h>

namespace client {
namespace {

/** A picture for the renderer, which keeps a reference while it draws it. */
class PictureMemory : public android::IMemory {
public:
    explicit PictureMemory(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
    void* pointer() const override { return const_cast<uint8_t*>(bytes_.data()); }
    size_t size() const override { return bytes_.size(); }

private:
    ~PictureMemory() override = default;

    std::vector<uint8_t> bytes_;
};

// Above the limit of every level: the encoder chooses.
constexpr uint32_t no_bit_rate = UINT32_MAX;

} // namespace

// A tenth of a bit per pixel keeps text sharp in ordinary use of a screen.
uint32_t sensible_bit_rate(Size size, uint32_t fps)
{
    const double rate = double(size.width) * size.height * fps / 10;
    return static_cast<uint32_t>(std::clamp(rate, 300e3, 20e6));
}

WatermarkChange::WatermarkChange(const WatermarkOptions& options)
    : options_(options), picture_(std::make_shared<RgbaPicture>()),
      reading_([picture = picture_, image = options.image] {
          if (!image.empty())
              *picture = read_png(image);
      })
{
}

void WatermarkChange::apply()
{
    reading_.finish();
    android::WatermarkParams params;
    if (!options_.image.empty()) {
        params.u32Width = picture_->size.width;
        params.u32Height = picture_->size.height;
        params.s32X = options_.at.x;
        params.s32Y = options_.at.y;
        params.u32Opacity = options_.opacity;
        params.spMemory =
            android::sp<android::IMemory>(new PictureMemory(std::move(picture_->bytes)));
    }
    if (video_capenc_setWatermark(params) != 0)
        throw library_failure("cannot draw the watermark: the library refused it");
}

EncodedStream::EncodedStream(const StreamOptions& options, Size size, StopSignals& signals,
                             std::string purpose)
    : purpose_(std::move(purpose)),
      bit_rate_(options.bit_rate.value_or(sensible_bit_rate(size, options.fps))),
      buffer_(video_capenc_getMaxEsSize())
{
    if (options.quality && want_quality(*options.quality, options.ceiling))
        quality_ = options.quality;
    if (quality_ && options.rare_key_frames)
        want_rare_key_frames();
    CapEnc_OpenParams params = {.width = size.width,
                                .height = size.height,
                                .frameRate = options.fps,
                                .outputBitrate = quality_ ? no_bit_rate : bit_rate_,
                                .profile = options.profile,
                                .level = options.level,
                                .osd = options.osd};
    const bool exact = want_exact_size(size.width, size.height);
    try {
        attend_display(signals, [&] { open(params); });
        size_ = exact ? size : Size{params.width, params.height};
        start(options.watermark, signals);
    } catch (const Failure&) {
        video_capenc_close();
        throw;
    }
}

void EncodedStream::open(CapEnc_OpenParams& params) const
{
    if (video_capenc_open(&params) != 0)
        throw library_failure(
            purpose_ +
            ": the library refused to open capture and encoder with this size, rate, profile and level");
    forget_library_log();
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
             .pts_us = due_time_of_frame(info.u64Pts),
             .key = info.bKeyFrame != 0,
             .captured_us = info.u64Pts};
    return true;
}

void EncodedStream::stop()
{
    if (running_)
        video_capenc_stop();
    running_ = false;
}

void LostFrames::frame_taken(uint64_t pts_us)
{
    if (frames_ == 0)
        first_pts_us_ = pts_us;
    last_pts_us_ = std::max(first_pts_us_, pts_us);
    ++frames_;
}

void LostFrames::nothing_taken_until(uint64_t time_us)
{
    last_pts_us_ = std::max(last_pts_us_, time_us);
}

void LostFrames::break_stretch()
{
    finished_ += in_stretch();
    frames_ = 0;
}

uint64_t LostFrames::in_stretch() const
{
    if (frames_ == 0)
        return 0;
    const uint64_t due = ((last_pts_us_ - first_pts_us_) * fps_ + 500'000) / 1'000'000 + 1;
    return due > frames_ ? due - frames_ : 0;
}

} // namespace client
