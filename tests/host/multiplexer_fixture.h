#pragma once

#include "helpers.h"
#include "picture/picture_in_flight.h"
#include "transport_stream/checker.h"
#include "zu3/tsmux.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace zu3host {

using Bytes = std::vector<uint8_t>;

constexpr uint64_t no_pts = ~uint64_t{0};
constexpr uint16_t picture_pid = 0x101;
constexpr uint16_t sound_pid = 0x102;

struct Form {
    uint32_t packet_size = 188;
    /** 0 = variable */
    uint32_t rate = 0;
    bool pictures = true;
    bool sound = false;
    /** bytes of the output buffer */
    uint32_t region = 1 << 18;
};

/** An open multiplexer, driven through the contract as a recording drives it. */
class Recording {
public:
    explicit Recording(const Form& form = {}) : region_(form.region)
    {
        const ZU_TSMUX_InitParams_t init{};
        ZU_TSMUX_Init(&init);
        params.u32TsPacketSize = form.packet_size;
        params.u8Reserved1 = 1;
        params.bCbrEnable = form.rate != 0;
        params.u16Pid0 = 0x1000;
        params.u16Pid1 = 0x100;
        params.u16Pid2 = 0x100;
        params.u16Pid3 = picture_pid;
        params.u32CbrBitrate = form.rate;
        params.u32OutBufVa = static_cast<u32>(reinterpret_cast<uintptr_t>(region_.virt));
        params.u32OutBufSize = region_.size;
        EXPECT_EQ(ZU_TSMUX_Open(&params, &handle), ZU_OK);
        const ZU_TSMUX_PtsContinuity_t continuity{1, 0, 180000, 90000};
        EXPECT_EQ(
            ZU_TSMUX_SetAttr(handle, E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL, &continuity),
            ZU_OK);
        u64 sound_id = 0;
        EXPECT_TRUE(!form.pictures ||
                    attach(E_ZU_TSMUX_STREAM_VIDEO_H264, picture_pid, 0xe0, &pictures_id) == ZU_OK);
        EXPECT_TRUE(!form.sound ||
                    attach(E_ZU_TSMUX_STREAM_AUDIO_AAC, sound_pid, 0xc0, &sound_id) == ZU_OK);
    }
    ~Recording() { ZU_TSMUX_Close(handle); }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    u32 attach(u32 type, u16 pid, u8 stream_id, u64* id)
    {
        const ZU_TSMUX_MediaSourceParams_t source{0, type, pid, stream_id, 0};
        return ZU_TSMUX_AttachMediaSource(handle, &source, id);
    }
    u32 detach_pictures() { return ZU_TSMUX_DetachMediaSource(handle, pictures_id); }
    u32 start()
    {
        const ZU_TSMUX_StartParams_t none{};
        return ZU_TSMUX_Start(handle, &none);
    }
    u32 push(const Bytes& unit, uint64_t pts)
    {
        ZU_TSMUX_MediaData_t data{pictures_id, const_cast<u8*>(unit.data()),
                                  static_cast<u32>(unit.size()), pts};
        return ZU_TSMUX_PushMediaData(handle, &data);
    }
    /**
     * Pushes as the encoder does for a picture captured at `us`, and copies `piece` bytes out while
     * there is no room. Returns how often there was none.
     */
    unsigned push_captured(const Bytes& unit, uint64_t us, u32 piece = 0x10000)
    {
        const PictureInFlight encoded{.stage = PictureInFlight::Stage::encoded, .time_us = us};
        const PictureInCallback in_callback(encoded);
        for (unsigned busy = 0;; ++busy) {
            const u32 result = push(unit, no_pts);
            if (result != ZU_BUSY || copy(piece) == 0) {
                EXPECT_EQ(result, ZU_OK);
                return busy;
            }
        }
    }
    /** Appends at most `max` bytes of the stream to `output`. */
    u32 copy(u32 max = 0x10000)
    {
        const size_t before = output.size();
        u32 copied = 0;
        output.resize(before + max);
        const u32 result = ZU_TSMUX_CopyOutputStream(handle, output.data() + before, max, &copied);
        output.resize(before + copied);
        return result == ZU_OK ? copied : 0;
    }
    void drain()
    {
        while (copy() != 0)
            ;
    }

    ZU_TSMUX_OpenParams_t params{};
    u32 handle = 0;
    u64 pictures_id = 0;
    Bytes output;

private:
    DeviceBlock region_;
};

/** Access units that begin as real ones do; what follows is noise without start codes. */
class UnitMaker {
public:
    Bytes make(bool idr, size_t size)
    {
        static const Bytes idr_head{0, 0, 0, 1, 0x09, 0xf0, 0, 0, 0, 1, 0x67, 0x64, 0x20,
                                    0, 0, 0, 1, 0x68, 0xee, 0, 0, 0, 1, 0x65, 0x88};
        static const Bytes other_head{0, 0, 0, 1, 0x09, 0xf0, 0, 0, 0, 1, 0x41, 0x9a};
        Bytes unit = idr ? idr_head : other_head;
        while (unit.size() < size)
            unit.push_back(static_cast<uint8_t>(noise_() % 254 + 2));
        sent.insert(sent.end(), unit.begin(), unit.end());
        return unit;
    }
    /** One of 20 to so many bytes. */
    Bytes make_any(bool idr, size_t most)
    {
        return make(idr, std::uniform_int_distribution<size_t>(20, most)(noise_));
    }
    /** all of them, in order */
    Bytes sent;

private:
    std::minstd_rand noise_{7};
};

inline std::string text_of(const transport_stream::Findings& findings)
{
    std::string text;
    for (const auto& finding : findings)
        text += finding.kind + " at " + std::to_string(finding.packet) + ": " + finding.what + "\n";
    return text.substr(0, 2000);
}

} // namespace zu3host
