#include "encoder/encoder.h"

#include "base/border.h"
#include "base/host_log.h"
#include "base/threads.h"
#include "picture/due_times.h"
#include "picture/picture_in_flight.h"
#include "statistics/counters.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sys/eventfd.h>
#include <utility>
#include <zu3_host/frame_event.h>

namespace zu3host {
namespace {

// A stop must not wait for a callback that is blocked until the stop has returned.
constexpr std::chrono::milliseconds time_to_drain{150};

// A refusal makes a capture pause for 200 ms; waiting costs it the one or two pictures that get
// late meanwhile.
constexpr std::chrono::milliseconds time_to_make_room{80};

// Two or three times the first picture's duration on a slow machine; later x264 counts as warm.
constexpr std::chrono::milliseconds time_to_get_warm{250};

std::atomic<int> wanted_event{-1};

int make_event()
{
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    wanted_event.store(fd, std::memory_order_release);
    return fd;
}

bool inject_is_allowed()
{
    const char* wish = secure_getenv("ZU3_INJECT");
    return !wish || std::strcmp(wish, "0") != 0;
}

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

Encoder::Encoder(const ZU_VENC_OpenParams_t& params, const EncoderSettings& settings,
                 std::unique_ptr<X264Encoder> x264)
    : callback_(params.pfnCallback), user_data_(params.pUserData), settings_(settings),
      x264_(std::move(x264)), lent_(settings.layout), size_while_open_(std::in_place, settings.size)
{
}

Encoder::~Encoder()
{
    close();
}

Encoder::Picture Encoder::Queue::pop()
{
    Picture picture = std::exchange(pictures_[first_], {});
    first_ = (first_ + 1) % capacity;
    --used_;
    return picture;
}

uint32_t Encoder::start(uint32_t handle)
{
    const std::lock_guard lock(mutex_);
    if (state_ == State::running)
        return ZU_OK;
    if (state_ == State::draining || state_ == State::closed)
        return ZU_FAILURE;
    handle_ = handle;
    ++session_;
    key_due_ = true;
    state_ = State::running;
    work_.notify_one();
    return ZU_OK;
}

void Encoder::stop()
{
    std::unique_lock lock(mutex_);
    if (state_ == State::running) {
        state_ = State::draining;
        changed_.notify_all();
    }
    if (state_ == State::draining && !in_callback())
        wait_patiently(changed_, lock, time_to_drain,
                       [this] { return state_ != State::draining || (queue_.empty() && !busy()); });
    if (state_ != State::draining && state_ != State::opened)
        return;
    state_ = State::stopped;
    drop_queue();
    changed_.notify_all();
}

uint32_t Encoder::close()
{
    {
        const std::lock_guard lock(mutex_);
        if (in_callback()) {
            HOST_LOGE("An encoder cannot be closed in its own callback");
            return ZU_FAILURE;
        }
    }
    stop();
    {
        std::unique_lock lock(mutex_);
        state_ = State::closed;
        work_.notify_one();
        changed_.wait(lock, [this] { return !busy(); });
    }
    const std::lock_guard lock(close_mutex_);
    if (thread_.joinable())
        thread_.join();
    size_while_open_.reset();
    return ZU_OK;
}

uint32_t Encoder::lend(ZU_VENC_InputBuffer_t& buffer)
{
    std::unique_lock lock(mutex_);
    wait_until_warm(lock);
    wait_for_room(lock, [this] { return lent_.any_to_lend(); });
    if (!lent_.any_to_lend())
        return ZU_BUSY;
    uint8_t* data = lent_.lend(captured_picture_in_callback());
    if (!data)
        return ZU_FAILURE;
    buffer.pu8Data = data;
    buffer.u32DataSize = static_cast<uint32_t>(settings_.layout.picture_bytes());
    return ZU_OK;
}

void Encoder::wait_until_warm(std::unique_lock<std::mutex>& lock)
{
    if (!in_callback())
        wait_patiently(changed_, lock, time_to_get_warm, [this] {
            return state_ != State::running || cold_pictures_ == 0 || (queue_.empty() && !busy());
        });
}

template <typename HasRoom>
void Encoder::wait_for_room(std::unique_lock<std::mutex>& lock, HasRoom has_room)
{
    if (!in_callback())
        wait_patiently(changed_, lock, time_to_make_room,
                       [&] { return !accepting() || has_room(); });
}

uint32_t Encoder::accept(const ZU_VENC_InputBuffer_t& buffer)
{
    std::unique_lock lock(mutex_);
    const uint32_t result = at_border("Accepting a picture", [&] { return admit(lock, buffer); });
    if (result != ZU_OK) {
        count_lost_picture(counters().pictures_refused);
        return result;
    }
    const bool left = leave_to_capture();
    lock.unlock();
    if (!left)
        work_.notify_one();
    return ZU_OK;
}

bool Encoder::leave_to_capture()
{
    const PictureInFlight* const captured = captured_picture_in_callback();
    if (!captured || captured->afterwards || busy() || state_ != State::running || key_due_ ||
        new_rate_ || queue_.size() != 1)
        return false;
    const Picture& picture = queue_.front();
    const ChangedRectangles changed = changed_in(picture);
    if (picture.as_key || !changed || !changed->empty() || !x264_->would_repeat())
        return false;
    captured->afterwards = shared_from_this();
    left_to_capture_ = true;
    return true;
}

void Encoder::after_callback()
{
    std::unique_lock lock(mutex_);
    left_to_capture_ = false;
    if (has_work()) {
        const Work work = take_work();
        lock.unlock();
        perform(work);
        finish();
    }
}

uint32_t Encoder::admit(std::unique_lock<std::mutex>& lock, const ZU_VENC_InputBuffer_t& buffer)
{
    if (!address_is_known(buffer))
        return ZU_INVALID_ARGUMENT;
    const PictureInFlight* const captured = captured_picture_in_callback();
    Picture picture{
        .data = buffer.pu8Data,
        .pts = buffer.u64Pts,
        .time = captured ? captured->time_us : buffer.u64Pts,
        .index = buffer.u32InBufIndex,
        .as_key = buffer.bRequestIFrame != 0,
        .injected = buffer.bEntireInject != 0,
        .contents = {},
    };
    // From here on the picture must not be overwritten, not even while there is no room.
    if (picture.injected) {
        lease_picture(picture.data);
        if (captured && captured->data == picture.data && !captured->drawn_on)
            picture.contents = {captured->serial, captured->changed, captured->memory};
    } else {
        picture.contents = lent_.complete();
    }
    wait_for_room(lock, [this] { return !queue_.full(); });
    if (!accepting() || queue_.full()) {
        give_back(picture);
        return accepting() ? ZU_BUSY : ZU_FAILURE;
    }
    queue_.push(picture);
    note_due_time(picture.pts, picture.time);
    return ZU_OK;
}

bool Encoder::address_is_known(const ZU_VENC_InputBuffer_t& buffer)
{
    const size_t bytes = settings_.layout.picture_bytes();
    const bool known = buffer.bEntireInject ? region_.contains(buffer.pu8Data, bytes)
                                            : lent_.is_lent(buffer.pu8Data);
    if (known && buffer.u32DataSize >= bytes)
        return true;
    // After a failed query the caller passes an empty record, which is correct.
    const bool nothing = !buffer.pu8Data && buffer.u32DataSize == 0;
    if (!nothing && !std::exchange(warned_of_address_, true))
        HOST_LOGW("The encoder refuses a picture of %u bytes at %p: it accepts %zu in %s",
                  buffer.u32DataSize, static_cast<const void*>(buffer.pu8Data), bytes,
                  buffer.bEntireInject ? "its inject buffer" : "the buffer that it lent");
    return false;
}

void Encoder::give_back(const Picture& picture)
{
    if (picture.injected)
        return_picture(picture.data);
    else
        lent_.release(picture.data);
}

void Encoder::drop_queue()
{
    while (!queue_.empty()) {
        give_back(queue_.pop());
        count_lost_picture(counters().pictures_refused);
    }
}

uint32_t Encoder::offer_inject_region(ZU_VENC_EntireInjectBuf_t& region)
{
    region = {};
    if (!settings_.inject || !inject_is_allowed())
        return ZU_OK;
    const std::lock_guard lock(mutex_);
    // If memory for it runs out, pictures are copied.
    region_.allocate(settings_.layout.picture_bytes());
    region.u32VirtAddr = region_.address();
    region.u32Size = region_.size();
    return ZU_OK;
}

uint32_t Encoder::set_bitrate(uint32_t bitrate)
{
    if (bitrate == 0)
        return ZU_INVALID_ARGUMENT;
    const std::lock_guard lock(mutex_);
    new_rate_ = EncoderRate::of(bitrate);
    return ZU_OK;
}

std::shared_ptr<Encoder> Encoder::open(const ZU_VENC_OpenParams_t& params)
{
    auto settings = encoder_settings_of(params);
    if (!settings)
        return nullptr;
    settings->size = take_exact_size(settings->size);
    take_requests(*settings);
    auto x264 = X264Encoder::open(*settings);
    if (!x264)
        return nullptr;
    std::shared_ptr<Encoder> encoder(new Encoder(params, *settings, std::move(x264)));
    encoder->thread_ = start_thread("encoder", [self = encoder.get()] { self->run(); });
    return encoder;
}

void Encoder::run()
{
    while (const auto work = next_work()) {
        perform(*work);
        finish();
    }
}

void Encoder::perform(const Work& work)
{
    if (const auto unit = encode(work))
        deliver(work, *unit);
}

void Encoder::finish()
{
    const std::lock_guard lock(mutex_);
    busy_ = {};
    changed_.notify_all();
    if (has_work())
        work_.notify_one();
}

bool Encoder::has_work() const
{
    const bool encoding = state_ == State::running || state_ == State::draining;
    return encoding && !queue_.empty() && !busy() && !left_to_capture_;
}

Encoder::Work Encoder::take_work()
{
    busy_ = std::this_thread::get_id();
    Work work{queue_.pop(), std::exchange(new_rate_, std::nullopt), session_, handle_};
    work.picture.as_key |= std::exchange(key_due_, false);
    return work;
}

std::optional<Encoder::Work> Encoder::next_work()
{
    std::unique_lock lock(mutex_);
    work_.wait(lock, [this] { return state_ == State::closed || has_work(); });
    return state_ == State::closed ? std::nullopt : std::optional(take_work());
}

ChangedRectangles Encoder::changed_in(const Picture& picture) const
{
    const auto& [serial, changed, memory] = picture.contents;
    if (encoded_serial_ == 0)
        return std::nullopt;
    if (serial == encoded_serial_)
        return ChangedRectangles(std::in_place);
    return changed.since == encoded_serial_ ? ChangedRectangles(changed.parts) : std::nullopt;
}

std::optional<AccessUnit> Encoder::encode(const Work& work)
{
    const Picture& picture = work.picture;
    const auto unit = at_border("Encoding a picture", std::optional<AccessUnit>(), [&] {
        if (work.rate)
            x264_->set_rate(*work.rate);
        return x264_->encode(picture.data, picture.as_key, changed_in(picture));
    });
    encoded_serial_ = unit ? picture.contents.serial : 0;
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
    const PictureInFlight encoded{.stage = PictureInFlight::Stage::encoded,
                                  .time_us = work.picture.time};
    const PictureInCallback in_callback(encoded);
    const u32 taken = at_border("The callback with a frame", [&] {
        return callback_(static_cast<s32>(work.handle), ZU_VENC_EVENT_FRAME, &frame, user_data_);
    });
    if (taken == ZU_BUSY)
        count(counters().pictures_left_out_for_room);
    if (!encoded.multiplexed && (!settings_.rare_key_frames || taken == ZU_BUSY))
        x264_->keep_distance_of_key_frames();
    signal_frame();
}

bool Encoder::may_deliver(uint32_t session)
{
    const std::lock_guard lock(mutex_);
    return session == session_ && (state_ == State::running || state_ == State::draining);
}

void signal_frame()
{
    const int fd = wanted_event.load(std::memory_order_acquire);
    if (fd >= 0)
        eventfd_write(fd, 1);
}

} // namespace zu3host

HOST_EXPORT int zu3_host_frame_event(void)
{
    static const int event = zu3host::make_event();
    return event;
}
