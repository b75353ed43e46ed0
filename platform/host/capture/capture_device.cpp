#include "capture/capture_device.h"

#include "base/host_log.h"
#include "base/threads.h"
#include "capture/still_picture.h"
#include "display/displays.h"
#include "memory/device_memory.h"
#include "memory/memory_register.h"
#include <common/signals.h>

#include <algorithm>

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
        HOST_LOGE("The capture device is connected to a display already.");
        return ZU_FAILURE;
    }
    source_ = open_picture_source();
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
    {
        const std::lock_guard lock(source_mutex_);
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
        CaptureRun{std::move(pool), out, visible, output.u32OutFrameRate, {}});
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
    // A picture of an earlier start that comes back late is told by its index.
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
    const auto block = block_of_phys(output.u64PhyAddr);
    // a display may let the picture wait
    const auto memory = block ? hold_memory(block->virt) : nullptr;
    if (!memory) {
        HOST_LOGE(
            "A single capture is to write to physical address 0x%llx, which is not in the device's memory.",
            static_cast<unsigned long long>(output.u64PhyAddr));
        return ZU_INVALID_ARGUMENT;
    }
    const uint64_t offset = output.u64PhyAddr - block->phys;
    const size_t capacity = std::min<uint64_t>(output.u32OutSize, block->size - offset);
    StillTarget target{block->virt + offset,
                       capacity,
                       output.eOutFormat,
                       {output.u32OutWidth, output.u32OutHeight},
                       output.u32Pitch};
    if (!check_still(target))
        return ZU_INVALID_ARGUMENT;
    const common::BrokenPipeGuard guard;
    {
        const std::lock_guard lock(source_mutex_);
        // A still shows the screen as programs drew it; the pointer is the layer above it that can
        // be asked for.
        const auto image =
            source_ ? source_->grab(
                          {target.size, stills_++, params.u32Osd != 0, {}, patience_of_stills})
                    : std::nullopt;
        if (!image)
            return ZU_FAILURE;
        write_still(*image, target);
    }
    const bool planar = target.format == E_ZU_CAP_FORMAT_NV12;
    const uint64_t luma_bytes = uint64_t{target.size.width} * target.size.height;
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
        if (pool->give_back(index))
            return ZU_OK;
    return ZU_FAILURE;
}

} // namespace zu3host
