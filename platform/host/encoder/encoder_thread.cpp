// The encoder's own thread: what runs between a picture that was taken and the end of the callback
// with its frame.
#include "base/border.h"
#include "base/host_log.h"
#include "base/threads.h"
#include "encoder/encoder.h"
#include "encoder/exact_size.h"
#include "statistics/counters.h"
#include "statistics/frame_event.h"

#include <utility>

namespace zu3host {
namespace {

ZU_VENC_FrameInfo_t frame_record(const AccessUnit& unit, uint64_t pts, uint32_t index)
{
    ZU_VENC_FrameInfo_t frame{};
    frame.pu8Data = unit.data;
    frame.u32DataSize = unit.size;
    frame.u8FrameType = unit.key ? E_ZU_VENC_FRAME_TYPE_KEY : 1;
    frame.u64Pts = pts;
    frame.u32InBufIndex = unit.key ? UINT32_MAX : index;
    return frame;
}

} // namespace

std::shared_ptr<Encoder> Encoder::open(const ZU_VENC_OpenParams_t& params)
{
    auto settings = encoder_settings_of(params);
    if (!settings)
        return nullptr;
    settings->size = take_exact_size(settings->size);
    auto x264 = X264Encoder::open(*settings);
    if (!x264)
        return nullptr;
    std::shared_ptr<Encoder> encoder(new Encoder(params, *settings, std::move(x264)));
    encoder->thread_ = start_thread("encoder", [self = encoder.get()] { self->run(); });
    encoder->thread_id_ = encoder->thread_.get_id();
    return encoder;
}

void Encoder::run()
{
    while (const auto work = next_work())
        if (const auto unit = encode(*work))
            deliver(*work, *unit);
}

std::optional<Encoder::Work> Encoder::next_work()
{
    std::unique_lock lock(mutex_);
    busy_ = false;
    changed_.notify_all();
    changed_.wait(lock, [this] {
        const bool encoding = state_ == State::Running || state_ == State::Draining;
        return state_ == State::Closed || (encoding && !queue_.empty());
    });
    if (state_ == State::Closed)
        return std::nullopt;
    busy_ = true;
    Work work{queue_.pop(), std::exchange(new_rate_, std::nullopt), session_, handle_};
    work.picture.as_key |= std::exchange(key_due_, false);
    return work;
}

std::optional<AccessUnit> Encoder::encode(const Work& work)
{
    const Picture& picture = work.picture;
    const bool unchanged = picture.serial != 0 && picture.serial == encoded_serial_;
    const auto unit = at_border("Encoding a picture", std::optional<AccessUnit>(), [&] {
        if (work.rate)
            x264_->set_rate(*work.rate);
        return x264_->encode(picture.data, picture.as_key, unchanged);
    });
    encoded_serial_ = unit ? picture.serial : 0;
    const std::lock_guard lock(mutex_);
    give_back(work.picture);
    cold_pictures_ -= cold_pictures_ != 0;
    changed_.notify_all();
    if (unit)
        return unit;
    key_due_ |= work.picture.as_key;
    count_lost_picture(counters().pictures_refused);
    if (!std::exchange(warned_of_x264_, true))
        HOST_LOGE("x264 failed to encode a picture, which is lost");
    return std::nullopt;
}

void Encoder::deliver(const Work& work, const AccessUnit& unit)
{
    if (!may_deliver(work.session)) {
        count_lost_picture(counters().pictures_refused);
        return;
    }
    count(counters().pictures_encoded);
    count(counters().bytes_encoded, unit.size);
    ZU_VENC_FrameInfo_t frame = frame_record(unit, work.picture.pts, work.picture.index);
    const FrameTimeInCallback frame_time(work.picture.time);
    const u32 taken = at_border("The callback with a frame", [&] {
        return callback_(static_cast<s32>(work.handle), ZU_VENC_EVENT_FRAME, &frame, user_data_);
    });
    if (taken == ZU_BUSY)
        count(counters().pictures_left_out_for_room);
    signal_frame();
}

bool Encoder::may_deliver(uint32_t session)
{
    const std::lock_guard lock(mutex_);
    return session == session_ && (state_ == State::Running || state_ == State::Draining);
}

} // namespace zu3host
