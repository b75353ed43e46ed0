#pragma once

#include "capture/picture_leases.h"
#include "capture/picture_time.h"
#include "common/picture_layout.h"
#include "encoder/open_encoder_scopes.h"
#include "memory/device_memory.h"
#include "statistics/counters.h"
#include "zu3/cap.h"
#include "zu3/disp.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <vector>

namespace zu3host {

using namespace std::chrono_literals;

struct Yuv {
    int y, u, v;
};
inline constexpr Yuv red{81, 90, 240}, white{235, 128, 128}, black{16, 128, 128};

inline void expect_near(Yuv is, Yuv wanted, const char* what)
{
    EXPECT_NEAR(is.y, wanted.y, 3) << what;
    EXPECT_NEAR(is.u, wanted.u, 3) << what;
    EXPECT_NEAR(is.v, wanted.v, 3) << what;
}

struct BlockOwner {
    explicit BlockOwner(uint32_t bytes) : block(allocate_block("test", bytes).value()) {}
    ~BlockOwner() { free_block(block.phys); }
    MemoryBlock block;
};

/** A capture device whose pictures a test looks at one by one, in the callback. */
class Capture {
public:
    using Look = std::function<void(const ZU_CAP_FrameInfo_t&)>;

    Capture()
    {
        const ZU_CAP_OpenParams_t open{};
        EXPECT_EQ(ZU_CAP_Open(&open, &handle), ZU_OK);
    }
    ~Capture() { close(); }

    uint32_t connect()
    {
        char name[64] = "ZU_DISP_HD0";
        const ZU_DISP_GetHandleParams_t display_name{name};
        const ZU_CAP_ConnectParams_t params{};
        uint32_t display = 0;
        EXPECT_EQ(ZU_DISP_GetHandle(&display_name, &display), ZU_OK);
        return ZU_CAP_ConnectInput(handle, display, &params);
    }
    uint32_t start(uint32_t width, uint32_t height, uint32_t rate, const MemoryBlock* region = nullptr)
    {
        const ZU_CAP_CallbackParams_t callback{0, &Capture::picture, 1, this, 0};
        uint64_t id = 0;
        EXPECT_EQ(ZU_CAP_RegisterCallback(handle, &callback, &id), ZU_OK);
        ZU_CAP_CaptureParams_t params{};
        params.stOutput.u32OutWidth = layout.stride = width;
        params.stOutput.u32OutHeight = layout.lines = height;
        params.stOutput.u32OutFrameRate = rate;
        params.stOutput.eOutFormat = E_ZU_CAP_FORMAT_NV12;
        if (region) {
            params.stOutput.u64VirtAddr = reinterpret_cast<uintptr_t>(region->virt);
            params.stOutput.u32OutSize = region->size;
        }
        return ZU_CAP_CaptureStart(handle, &params);
    }
    uint32_t still(const MemoryBlock& block, uint32_t format, PictureSize size, uint32_t pitch,
                   uint32_t bytes, bool osd = false)
    {
        ZU_CAP_CaptureParams_t params{};
        params.u32Osd = osd;
        params.stOutput.u32OutWidth = size.width;
        params.stOutput.u32OutHeight = size.height;
        params.stOutput.u32OutSize = bytes;
        params.stOutput.eOutFormat = format;
        params.stOutput.u32Pitch = pitch;
        params.stOutput.u64PhyAddr = block.phys;
        ZU_CAP_FrameInfo_t frame{};
        const uint32_t result = ZU_CAP_CaptureOne(handle, &params, &frame);
        if (result == ZU_OK) {
            EXPECT_EQ(ZU_CAP_ProcessBufDone(handle, frame.u32BufIndex), ZU_OK);
            EXPECT_NE(ZU_CAP_ProcessBufDone(handle, frame.u32BufIndex), ZU_OK) << "given back twice";
        }
        return result;
    }
    void close()
    {
        if (handle) {
            EXPECT_EQ(ZU_CAP_Close(handle), ZU_OK);
        }
        handle = 0;
    }
    /** Has the next picture looked at in its callback before it is given back, or one after so many others.
     */
    void look(const Look& at, int others = 0)
    {
        for (; others > 0; --others)
            look([](const ZU_CAP_FrameInfo_t&) {});
        std::unique_lock lock(mutex_);
        look_ = at;
        ASSERT_TRUE(changed_.wait_for(lock, 20s, [this] { return !look_; })) << "no picture came";
    }
    template <typename Condition> bool wait_until(Condition condition)
    {
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        std::unique_lock lock(mutex_);
        while (!condition() && std::chrono::steady_clock::now() < deadline)
            changed_.wait_for(lock, 1ms);
        return condition();
    }

    Yuv at(const ZU_CAP_FrameInfo_t& frame, uint32_t x, uint32_t y) const
    {
        const MemoryBlock block = block_of_phys(frame.phyYAddr).value();
        const uint8_t* luma = block.virt + (frame.phyYAddr - block.phys);
        const uint8_t* chroma =
            block.virt + (frame.phyCAddr - block.phys) + layout.stride * (y / 2) + (x & ~1u);
        return {luma[layout.stride * y + x], chroma[0], chroma[1]};
    }
    /** The number that the test card shows. */
    uint32_t number(const ZU_CAP_FrameInfo_t& frame) const
    {
        uint32_t value = 0;
        for (uint32_t bit = 0; bit < 32; ++bit)
            value |= static_cast<uint32_t>(at(frame, bit % 16 * 16 + 8, bit / 16 * 16 + 8).y > 128) << bit;
        return value;
    }

    uint32_t handle = 0;
    PictureLayout layout{};

private:
    static u32 picture(s32 handle, u32, ZU_CAP_FrameInfo_t* frame, void* user)
    {
        auto& self = *static_cast<Capture*>(user);
        std::unique_lock lock(self.mutex_);
        const Look look = self.look_;
        lock.unlock();
        if (look)
            look(*frame);
        EXPECT_EQ(ZU_CAP_ProcessBufDone(static_cast<u32>(handle), frame->u32BufIndex), ZU_OK);
        lock.lock();
        if (look)
            self.look_ = nullptr;
        self.changed_.notify_all();
        return 1;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    Look look_;
};

} // namespace zu3host
