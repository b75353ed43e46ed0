#pragma once

#include "base/picture_layout.h"
#include "encoder/input_memory.h"
#include "helpers.h"
#include "picture/picture_in_flight.h"
#include "statistics/counters.h"
#include "zu3/venc.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace zu3host {

using Bytes = std::vector<uint8_t>;

struct Frame {
    Bytes bytes;
    bool key;
    uint64_t pts;
    uint32_t index;
    std::optional<uint64_t> time_in_callback;
    std::thread::id thread;
};

/** Keeps what the encoder's callback gets; can hold a callback back. */
class Receiver {
public:
    static u32 receive(s32, u32 event, ZU_VENC_FrameInfo_t* frame, void* receiver)
    {
        auto& self = *static_cast<Receiver*>(receiver);
        EXPECT_EQ(event, u32{ZU_VENC_EVENT_FRAME});
        {
            const std::lock_guard lock(self.mutex_);
            self.frames.push_back({Bytes(frame->pu8Data, frame->pu8Data + frame->u32DataSize),
                                   frame->u8FrameType == 0xFF, frame->u64Pts, frame->u32InBufIndex,
                                   encoded_picture_in_callback()->time_us,
                                   std::this_thread::get_id()});
        }
        self.held_ = self.blocked_.load();
        self.blocked_.wait(true);
        self.held_ = false;
        return 0;
    }
    void block(bool blocked)
    {
        blocked_ = blocked;
        blocked_.notify_all();
    }
    bool wait_for_frames(size_t count)
    {
        return wait_until([&] { return frame_count() >= count; });
    }
    bool is_held() const { return held_; }
    size_t frame_count()
    {
        const std::lock_guard lock(mutex_);
        return frames.size();
    }

    std::vector<Frame> frames;

private:
    std::mutex mutex_;
    std::atomic<bool> blocked_{false}, held_{false};
};

inline ZU_VENC_OpenParams_t params_of(uint32_t width, uint32_t height,
                                      u32 format = E_ZU_VENC_COLOR_COPY)
{
    ZU_VENC_OpenParams_t params{};
    params.eColorFormat = format;
    params.u32Width = width;
    params.u32Height = height;
    params.u32FrameRate = 30;
    params.u32Bitrate = 1048576;
    params.eCodecType = E_ZU_VENC_CODEC_H264;
    params.pfnCallback = &Receiver::receive;
    params.u32EventMask = ZU_VENC_EVENT_FRAME;
    return params;
}

/** A texture that moves by three pixels a picture, with different noise in each. */
inline void draw(uint8_t* picture, PictureLayout layout, uint32_t number)
{
    uint32_t random = number * 2654435761u + 1;
    for (uint32_t i = 0; i < layout.luma_bytes(); ++i) {
        const uint32_t x = i % layout.stride + 3 * number, y = i / layout.stride;
        random = random * 1664525u + 1013904223u;
        picture[i] = static_cast<uint8_t>(100 + (x / 8 * 37 + y / 8 * 59) % 64 + (random >> 28));
    }
    std::fill(picture + layout.luma_bytes(), picture + layout.picture_bytes(), uint8_t{128});
}

/** An encoder that is closed at the end of its test. */
class TestEncoder {
public:
    explicit TestEncoder(ZU_VENC_OpenParams_t params)
        : layout(PictureLayout::of(params.u32Width, params.u32Height))
    {
        params.pUserData = &receiver;
        EXPECT_EQ(ZU_VENC_Open(&params, &handle), ZU_OK);
    }
    ~TestEncoder()
    {
        receiver.block(false);
        EXPECT_EQ(ZU_VENC_Close(handle), ZU_OK);
        EXPECT_EQ(stop(), ZU_INVALID_ARGUMENT);
    }
    void start()
    {
        const ZU_VENC_StartParams_t params{};
        ASSERT_EQ(ZU_VENC_Start(handle, &params), ZU_OK);
    }
    u32 stop() { return ZU_VENC_Stop(handle); }
    u32 take(const ZU_VENC_InputBuffer_t& buffer)
    {
        return ZU_VENC_WriteBufferComplete(handle, &buffer);
    }
    ZU_VENC_InputBuffer_t lend()
    {
        ZU_VENC_InputBuffer_t buffer{};
        EXPECT_EQ(ZU_VENC_QueryBuffer(handle, &buffer), ZU_OK);
        EXPECT_EQ(buffer.u32DataSize, layout.picture_bytes());
        return buffer;
    }
    /** Hands picture `number` over, stamped 1000 times its number. */
    u32 feed(uint32_t number, bool as_key = false)
    {
        ZU_VENC_InputBuffer_t buffer = lend();
        draw(buffer.pu8Data, layout, number);
        buffer.u64Pts = number * 1000;
        buffer.u32InBufIndex = number % 16;
        buffer.bRequestIFrame = as_key;
        return take(buffer);
    }
    ZU_VENC_EntireInjectBuf_t inject_region()
    {
        ZU_VENC_EntireInjectBuf_t region{1, 1, {}};
        EXPECT_EQ(ZU_VENC_QueryEntireInjectBuffer(handle, &region), ZU_OK);
        return region;
    }
    /** Hands a picture over that lies in the inject region. */
    u32 inject(uint8_t* data)
    {
        return take({data, static_cast<u32>(layout.picture_bytes()), 1, 0, {}, 1, 1, 0});
    }
    /** Feeds pictures one by one; returns their bits per second at 30 pictures per second. */
    double encode(uint32_t count)
    {
        double bytes = 0;
        for (uint32_t i = 0; i < count; ++i) {
            const size_t before = receiver.frame_count();
            EXPECT_EQ(feed(static_cast<uint32_t>(before)), ZU_OK);
            EXPECT_TRUE(receiver.wait_for_frames(before + 1));
            bytes += static_cast<double>(receiver.frames.back().bytes.size());
        }
        return bytes * 8 * 30 / count;
    }
    /** Holds a frame's callback and fills the queue behind it. */
    void fill()
    {
        receiver.block(true);
        ASSERT_EQ(feed(0), ZU_OK);
        ASSERT_TRUE(wait_until([&] { return receiver.is_held(); }));
        for (uint32_t number = 1; number <= LentBuffers::count; ++number)
            ASSERT_EQ(feed(number), ZU_OK);
    }

    // outlives the encoder, whose thread calls it
    Receiver receiver;
    PictureLayout layout;
    u32 handle = 0;
};

} // namespace zu3host
