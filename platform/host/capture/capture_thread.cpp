#include "capture/capture_device.h"

#include "base/border.h"
#include "capture/captured_picture.h"
#include "capture/nv12_picture.h"
#include "capture/picture_time_scope.h"
#include "statistics/counters.h"

namespace zu3host {

namespace {

constexpr uint32_t picture_event = 1;
// What a display that does not answer leaves out is counted once in so long.
constexpr auto patience_of_pictures = std::chrono::milliseconds(500);

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
    while (wait_until_due(run, schedule.due())) {
        Counters& all = counters();
        if (const uint64_t late = schedule.pass_over_late(std::chrono::steady_clock::now()))
            count_dropped(blind ? all.pictures_dropped_no_display : all.pictures_dropped_late,
                          late);
        blind = !capture_picture(run, schedule);
        schedule.advance();
    }
}

bool CaptureDevice::wait_until_due(const CaptureRun& run, CaptureSchedule::Time due)
{
    std::unique_lock lock(mutex_);
    return !changed_.wait_until(lock, due, [&run] { return run.stop.stop_requested(); });
}

bool CaptureDevice::capture_picture(CaptureRun& run, const CaptureSchedule& schedule)
{
    const auto index = at_border("Capturing a picture", std::optional<uint32_t>(),
                                 [&] { return run.pool->take(); });
    if (!index) {
        count_dropped(counters().pictures_dropped_no_buffer);
        return true;
    }
    const Written written = at_border("Capturing a picture", Written::NoMemory, [&] {
        return write_picture(run, schedule.number(), *index);
    });
    if (written == Written::Done) {
        deliver(run, *index, schedule.due());
        return true;
    }
    run.pool->give_back(*index);
    if (written == Written::NoDisplay)
        count_due(counters().pictures_dropped_no_display);
    else if (written == Written::NoMemory)
        count_due(counters().pictures_dropped_no_buffer);
    return written == Written::NoMemory;
}

CaptureDevice::Written CaptureDevice::write_picture(CaptureRun& run, uint64_t number,
                                                    uint32_t index)
{
    const std::lock_guard lock(source_mutex_);
    const std::stop_token stop = run.stop.get_token();
    if (stop.stop_requested())
        return Written::Stopped;
    auto image = source_ ? source_->grab({run.visible, static_cast<uint32_t>(number), true, stop,
                                          patience_of_pictures})
                         : std::nullopt;
    if (!image)
        return stop.stop_requested() ? Written::Stopped : Written::NoDisplay;

    image->size = without_odd_edge(image->size, run.visible);
    PicturePool& pool = *run.pool;
    PicturePool::Contents& contents = pool.contents(index);
    uint8_t* picture = pool.picture(index);
    const Placement placement = place_display(image->size, run.out, run.visible);
    // A slot of the capture's own still holds what it was given.
    if (!pool.is_shared() && contents.serial == image->serial && contents.bordered_for == placement)
        return Written::Done;
    // Where a renderer draws into the pictures, it may have drawn into a border that is seen.
    const bool border_seen = placement.image != run.visible;
    if (contents.bordered_for != placement || (border_seen && pool.is_shared()))
        blacken_border(placement, picture, pool.layout());
    contents = {placement, image->serial};
    write_nv12(scaler_.scaled(*image, placement.image), placement, picture, pool.layout());
    return Written::Done;
}

void CaptureDevice::deliver(CaptureRun& run, uint32_t index, CaptureSchedule::Time due)
{
    Listener listener;
    uint32_t handle = 0;
    {
        // What stops or unregisters takes the same lock: no callback begins after either.
        const std::lock_guard lock(mutex_);
        if (!run.stop.stop_requested())
            listener = listener_;
        handle = handle_;
    }
    if (!listener.call) {
        run.pool->give_back(index);
        return;
    }
    count_due(counters().pictures_captured);
    const uint64_t phys = run.pool->phys(index);
    ZU_CAP_FrameInfo_t frame{.u32BufIndex = index,
                             .u32Reserved0 = 0,
                             .phyYAddr = phys,
                             .phyCAddr = phys + run.pool->layout().luma_bytes(),
                             .u64Reserved1 = 0};
    const DueTimeInCallback due_time(due);
    const CapturedPicture picture =
        run.pool->is_shared() ? CapturedPicture{}
                              : CapturedPicture{run.pool->picture(index), run.pool->layout(),
                                                run.pool, run.pool->contents(index).serial};
    const CapturedPictureInCallback in_callback(picture);
    at_border("The callback with a picture", [&] {
        return listener.call(static_cast<s32>(handle), picture_event, &frame, listener.user);
    });
}

} // namespace zu3host
