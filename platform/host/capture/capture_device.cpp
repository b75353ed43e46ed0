#include "capture/capture_device.h"

#include "base/border.h"
#include "base/host_log.h"
#include "base/threads.h"
#include "capture/screen.h"
#include "capture/still_picture.h"
#include "picture/picture_in_flight.h"
#include "statistics/counters.h"

#include <algorithm>
#include <common/clock.h>
#include <common/signals.h>

namespace zu3host {

namespace {

// single captures are in the caller's memory, not in a slot
constexpr uint32_t still_index = 0xFFFFFFFF;
constexpr uint32_t highest_rate = 1000;
constexpr auto patience_of_stills = std::chrono::seconds(5);

bool output_is_possible(const ZU_CAP_Output_t& output)
{
    const PictureLayout layout = PictureLayout::of(output.u32OutWidth, output.u32OutHeight);
    const bool size_fits =
        output.u32OutWidth && output.u32OutHeight && output.u32OutWidth <= max_picture_width &&
        output.u32OutHeight <= max_picture_height && layout.stride == output.u32OutWidth &&
        layout.lines == output.u32OutHeight;
    if (size_fits && output.eOutFormat == E_ZU_CAP_FORMAT_NV12 && output.u32OutFrameRate &&
        output.u32OutFrameRate <= highest_rate)
        return true;
    HOST_LOGE(
        "A capture of %u x %u pixels, format %u, %u pictures a second is not possible: the format is 5, the width a multiple of 16 to %u, the height one of 32 to %u, the rate 1 to %u.",
        output.u32OutWidth, output.u32OutHeight, output.eOutFormat, output.u32OutFrameRate,
        max_picture_width, max_picture_height, highest_rate);
    return false;
}

constexpr uint32_t picture_event = 1;
// Interval of counting the pictures that a silent display lacks.
constexpr auto patience_of_pictures = std::chrono::milliseconds(500);

/**
 * How early a grab of a source that waits for changes begins. It covers the frame interval of the
 * slowest usual screen. At the usual rates it is all of the interval between pictures, so the
 * source's thread waits, and no other wakes up for a picture without a change. Stills wait as long.
 */
std::chrono::nanoseconds lead_of_grabs(uint32_t rate)
{
    constexpr std::chrono::nanoseconds longest = std::chrono::milliseconds(40);
    return std::min(longest, std::chrono::nanoseconds(std::chrono::seconds(1)) / rate);
}

void count_due(std::atomic<uint64_t>& outcome, uint64_t by = 1)
{
    count(counters().pictures_due, by);
    count(outcome, by);
}

void count_dropped(std::atomic<uint64_t>& reason, uint64_t by = 1)
{
    count(counters().pictures_due, by);
    count_lost_picture(reason, by);
}

} // namespace

CaptureDevice::~CaptureDevice()
{
    close();
}

uint32_t CaptureDevice::connect(uint32_t display)
{
    if (display != main_display)
        return ZU_INVALID_ARGUMENT;
    const common::BrokenPipeGuard guard;
    const std::lock_guard lock(source_mutex_);
    if (source_) {
        HOST_LOGE("The capture device is already connected to a display.");
        return ZU_FAILURE;
    }
    const auto part = chosen_screen_part();
    if (!part)
        return ZU_FAILURE;
    source_ = open_picture_source(*part);
    pointer_ = part->pointer;
    return source_ ? ZU_OK : ZU_FAILURE;
}

uint32_t CaptureDevice::disconnect(uint32_t display)
{
    if (display != main_display)
        return ZU_INVALID_ARGUMENT;
    const common::BrokenPipeGuard guard;
    const std::lock_guard lock(source_mutex_);
    if (!source_)
        return ZU_FAILURE;
    source_.reset();
    return ZU_OK;
}

uint32_t CaptureDevice::set_callback(const ZU_CAP_CallbackParams_t& params, uint64_t& id)
{
    constexpr uint32_t captured_pictures = 1;
    if (!params.pfnCallback || !(params.u32EventMask & captured_pictures))
        return ZU_INVALID_ARGUMENT;
    const std::lock_guard lock(mutex_);
    listener_ = {next_listener_++, params.pfnCallback, params.pUserData};
    id = listener_.id;
    return ZU_OK;
}

uint32_t CaptureDevice::remove_callback(uint64_t id)
{
    const std::lock_guard lock(mutex_);
    if (!id || listener_.id != id)
        return ZU_INVALID_ARGUMENT;
    listener_ = {};
    return ZU_OK;
}

uint32_t CaptureDevice::start(uint32_t handle, const ZU_CAP_CaptureParams_t& params)
{
    // u32Osd has nothing to switch here: the pointer, which belongs in every recording, is all that
    // lies above the screen's picture.
    const ZU_CAP_Output_t& output = params.stOutput;
    if (!output_is_possible(output))
        return ZU_INVALID_ARGUMENT;
    std::chrono::nanoseconds lead{};
    {
        const std::lock_guard lock(source_mutex_);
        if (source_ && source_->awaits_changes())
            lead = lead_of_grabs(output.u32OutFrameRate);
        if (!source_) {
            HOST_LOGE("The capture device is started without a display: connect its input first.");
            return ZU_FAILURE;
        }
    }
    const PictureSize out{output.u32OutWidth, output.u32OutHeight};
    const PictureSize visible = exact_size_of_open_encoder(out.width, out.height).value_or(out);
    const std::lock_guard lock(mutex_);
    if (run_ || closing_)
        return ZU_FAILURE;
    std::shared_ptr<PicturePool> pool = make_pool(output);
    if (!pool)
        return ZU_FAILURE;
    if (!thread_.joinable())
        thread_ = start_thread("zu3 capture", [this] { run_thread(); });
    std::erase_if(pools_, [](const auto& old) { return !old->any_out(); });
    pools_.push_back(pool);
    run_ = std::make_shared<CaptureRun>(
        CaptureRun{std::move(pool), visible, output.u32OutFrameRate, lead, {}});
    handle_ = handle;
    changed_.notify_all();
    return ZU_OK;
}

std::shared_ptr<PicturePool> CaptureDevice::make_pool(const ZU_CAP_Output_t& output)
{
    const PictureLayout layout{output.u32OutWidth, output.u32OutHeight};
    std::shared_ptr<PicturePool> pool =
        output.u64VirtAddr
            ? PicturePool::in_region(layout, output.u64VirtAddr, output.u32OutSize, next_index_)
            : PicturePool::own(layout, next_index_);
    if (!pool)
        return nullptr;
    // The index identifies a picture of an earlier start that is returned late.
    next_index_ = next_index_ >= still_index / 2 ? 0 : next_index_ + pool->count();
    return pool;
}

uint32_t CaptureDevice::stop()
{
    {
        const std::lock_guard lock(mutex_);
        if (!run_)
            return ZU_OK;
        run_->stop.request_stop();
        run_.reset();
        changed_.notify_all();
    }
    const std::lock_guard written(source_mutex_);
    return ZU_OK;
}

uint32_t CaptureDevice::close()
{
    std::thread thread;
    {
        const std::lock_guard lock(mutex_);
        if (thread_.get_id() == std::this_thread::get_id())
            return ZU_FAILURE;
        closing_ = true;
        if (run_)
            run_->stop.request_stop();
        run_.reset();
        listener_ = {};
        changed_.notify_all();
        thread = std::move(thread_);
    }
    if (thread.joinable())
        thread.join();
    const common::BrokenPipeGuard guard;
    const std::lock_guard lock(source_mutex_);
    source_.reset();
    return ZU_OK;
}

uint32_t CaptureDevice::capture_one(const ZU_CAP_CaptureParams_t& params, ZU_CAP_FrameInfo_t& frame)
{
    const ZU_CAP_Output_t& output = params.stOutput;
    const auto target = still_target(output);
    if (!target)
        return ZU_INVALID_ARGUMENT;
    const common::BrokenPipeGuard guard;
    {
        const std::lock_guard lock(source_mutex_);
        // A still shows the screen as programs drew it; the pointer is the layer above it that can
        // be asked for.
        const auto image =
            source_ ? source_->grab(
                          {target->size, stills_++, params.u32Osd != 0, {}, patience_of_stills})
                    : std::nullopt;
        if (!image)
            return ZU_FAILURE;
        writer_.note(*image);
        write_still(*image, *target);
    }
    const bool planar = target->format == E_ZU_CAP_FORMAT_NV12;
    const uint64_t luma_bytes = uint64_t{target->size.width} * target->size.height;
    frame = {.u32BufIndex = still_index,
             .u32Reserved0 = 0,
             .phyYAddr = output.u64PhyAddr,
             .phyCAddr = planar ? output.u64PhyAddr + luma_bytes : 0,
             .u64Reserved1 = 0};
    const std::lock_guard lock(mutex_);
    ++stills_out_;
    return ZU_OK;
}

uint32_t CaptureDevice::give_back(uint32_t index)
{
    const std::lock_guard lock(mutex_);
    if (index == still_index) {
        if (!stills_out_)
            return ZU_FAILURE;
        --stills_out_;
        return ZU_OK;
    }
    for (const auto& pool : pools_)
        if (pool->release(index))
            return ZU_OK;
    return ZU_FAILURE;
}

void CaptureDevice::run_thread()
{
    while (const std::shared_ptr<CaptureRun> run = next_run())
        stream(*run);
}

std::shared_ptr<CaptureRun> CaptureDevice::next_run()
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return closing_ || run_; });
    return closing_ ? nullptr : run_;
}

void CaptureDevice::stream(CaptureRun& run)
{
    CaptureSchedule schedule(std::chrono::steady_clock::now(), run.rate);
    bool blind = false;
    while (wait_until(run, schedule.due() - run.lead)) {
        Counters& all = counters();
        if (const uint64_t late = schedule.pass_over_late(std::chrono::steady_clock::now()))
            count_dropped(blind ? all.pictures_dropped_no_display : all.pictures_dropped_late,
                          late);
        blind = !capture_picture(run, schedule);
        schedule.advance();
    }
}

bool CaptureDevice::wait_until(const CaptureRun& run, CaptureSchedule::Time moment)
{
    std::unique_lock lock(mutex_);
    return !changed_.wait_until(lock, moment, [&run] { return run.stop.stop_requested(); });
}

bool CaptureDevice::capture_picture(CaptureRun& run, const CaptureSchedule& schedule)
{
    std::optional<uint32_t> index;
    const Written written = at_border("Capturing a picture", Written::no_memory,
                                      [&] { return write_picture(run, schedule, index); });
    if (written == Written::done) {
        deliver(run, *index, schedule.due());
        return true;
    }
    if (index)
        run.pool->release(*index);
    if (written == Written::no_slot)
        count_dropped(counters().pictures_dropped_no_buffer);
    else if (written == Written::no_display)
        count_due(counters().pictures_dropped_no_display);
    else if (written == Written::no_memory)
        count_due(counters().pictures_dropped_no_buffer);
    return written == Written::no_memory || written == Written::no_slot;
}

CaptureDevice::Written CaptureDevice::write_picture(CaptureRun& run,
                                                    const CaptureSchedule& schedule,
                                                    std::optional<uint32_t>& index)
{
    const std::lock_guard lock(source_mutex_);
    const std::stop_token stop = run.stop.get_token();
    if (stop.stop_requested())
        return Written::stopped;
    // Before a grab that would be for nothing; but an early one begins while the encoder still uses
    // the last picture, and may leave the same slot to this one.
    const bool early = run.lead > std::chrono::nanoseconds::zero();
    if (!early && !(index = run.pool->acquire()))
        return Written::no_slot;
    const auto image = source_
                           ? source_->grab({run.visible, static_cast<uint32_t>(schedule.number()),
                                            pointer_, stop, patience_of_pictures, schedule.due()})
                           : std::nullopt;
    if (!image)
        return stop.stop_requested() ? Written::stopped : Written::no_display;
    writer_.note(*image);
    if (early && !(index = run.pool->acquire()))
        return Written::no_slot;
    writer_.write(*image, *run.pool, *index, run.visible);
    return Written::done;
}

void CaptureDevice::deliver(CaptureRun& run, uint32_t index, CaptureSchedule::Time due)
{
    Listener listener;
    uint32_t handle = 0;
    {
        // Stop and unregistration lock the same mutex, so no callback begins after either.
        const std::lock_guard lock(mutex_);
        if (!run.stop.stop_requested())
            listener = listener_;
        handle = handle_;
    }
    if (!listener.call) {
        run.pool->release(index);
        return;
    }
    count_due(counters().pictures_captured);
    const uint64_t phys = run.pool->phys(index);
    ZU_CAP_FrameInfo_t frame{.u32BufIndex = index,
                             .u32Reserved0 = 0,
                             .phyYAddr = phys,
                             .phyCAddr = phys + run.pool->layout().luma_bytes(),
                             .u64Reserved1 = 0};
    PictureInFlight picture{.stage = PictureInFlight::Stage::captured,
                            .time_us = static_cast<uint64_t>(common::microseconds_of(due))};
    PicturePool::Contents& contents = run.pool->contents(index);
    picture.data = run.pool->picture(index);
    picture.layout = run.pool->layout();
    picture.memory = run.pool;
    picture.serial = contents.serial;
    picture.changed = {contents.since, contents.changed.parts()};
    at_border("The callback with a picture", u32{0}, [&] {
        const PictureInCallback in_callback(picture);
        return listener.call(static_cast<s32>(handle), picture_event, &frame, listener.user);
    });
    contents.drawn_on = picture.drawn_on;
    if (picture.afterwards)
        picture.afterwards->after_callback();
}

} // namespace zu3host
