#pragma once

#include "base/picture_layout.h"
#include "capture/capture_schedule.h"
#include "capture/picture_pool.h"
#include "capture/picture_source.h"
#include "capture/picture_writer.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <thread>
#include <vector>
#include <zu3/cap.h>

namespace zu3host {

/**
 * The one display of this platform, "ZU_DISP_HD0": the X11 screen or what ZU3_DISPLAY puts in its
 * place.
 */
inline constexpr uint32_t main_display = 0xD1500000;

/** The parameters of one start of a capture. */
struct CaptureRun {
    std::shared_ptr<PicturePool> pool;
    /** the visible part of the pictures */
    PictureSize visible;
    /** pictures per second */
    uint32_t rate;
    /** how long before a picture is due its grab begins */
    std::chrono::nanoseconds lead;
    std::stop_source stop;
};

/**
 * An open capture device. Its thread grabs a picture for each moment of the schedule, converts it in
 * one pass into a free slot and passes it to the callback, with no lock held. A source that knows
 * of changes gives a picture before that moment if it is the last one until then. Results are ZU_*
 * codes. Any thread may make any call, also within the callback, except close().
 */
class CaptureDevice {
public:
    CaptureDevice() = default;
    /** Closes. */
    ~CaptureDevice();
    CaptureDevice(const CaptureDevice&) = delete;
    CaptureDevice& operator=(const CaptureDevice&) = delete;

    uint32_t connect(uint32_t display);
    uint32_t disconnect(uint32_t display);

    uint32_t set_callback(const ZU_CAP_CallbackParams_t& params, uint64_t& id);
    uint32_t remove_callback(uint64_t id);

    /**
     * The callback gets `handle`. Throws std::system_error when the system gives no thread.
     */
    uint32_t start(uint32_t handle, const ZU_CAP_CaptureParams_t& params);
    /**
     * Returns once no picture is written any more. Does not wait for a running callback, which may
     * wait for the caller.
     */
    uint32_t stop();
    /** Stops, and waits for a running callback; ZU_FAILURE within the callback itself. */
    uint32_t close();

    uint32_t capture_one(const ZU_CAP_CaptureParams_t& params, ZU_CAP_FrameInfo_t& frame);
    uint32_t give_back(uint32_t index);

private:
    struct Listener {
        // 0 = none
        uint64_t id = 0;
        ZU_CAP_Callback call = nullptr;
        void* user = nullptr;
    };
    enum class Written { done, no_display, no_slot, no_memory, stopped };

    std::shared_ptr<PicturePool> make_pool(const ZU_CAP_Output_t& output);

    void run_thread();
    std::shared_ptr<CaptureRun> next_run();
    void stream(CaptureRun& run);
    /** False once the run is stopped. */
    bool wait_until(const CaptureRun& run, CaptureSchedule::Time moment);
    /** False if the display gave no picture. */
    bool capture_picture(CaptureRun& run, const CaptureSchedule& schedule);
    /** @param index receives the slot of the picture, if one is acquired */
    Written write_picture(CaptureRun& run, const CaptureSchedule& schedule,
                          std::optional<uint32_t>& index);
    void deliver(CaptureRun& run, uint32_t index, CaptureSchedule::Time due);

    // held while a picture is grabbed and converted; locked before mutex_ if both are
    std::mutex source_mutex_;
    std::unique_ptr<PictureSource> source_;
    // recordings show the pointer
    bool pointer_ = true;
    PictureWriter writer_;
    uint32_t stills_ = 0;

    // guards all below
    std::mutex mutex_;
    std::condition_variable changed_;
    Listener listener_;
    uint64_t next_listener_ = 1;
    uint32_t handle_ = 0;
    // null while stopped
    std::shared_ptr<CaptureRun> run_;
    // the newest last, older ones while a picture of them is out
    std::vector<std::shared_ptr<PicturePool>> pools_;
    uint32_t next_index_ = 0;
    uint32_t stills_out_ = 0;
    bool closing_ = false;
    std::thread thread_;
};

} // namespace zu3host
