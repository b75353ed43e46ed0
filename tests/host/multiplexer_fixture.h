#pragma once

#include "encoder/open_encoder_scopes.h"
#include "memory/device_memory.h"
#include "transport_stream/checker.h"
#include "zu3/tsmux.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

namespace zu3host {

using Bytes = std::vector<uint8_t>;

constexpr uint64_t no_pts = ~uint64_t{0};
constexpr uint16_t picture_pid = 0x101;
constexpr uint16_t sound_pid = 0x102;

/** Device memory that a test's multiplexers are pointed at. */
class Region {
public:
    explicit Region(uint32_t size) : block_(*allocate_block("test region", size)) {}
    ~Region() { free_block(block_.phys); }
    Region(const Region&) = delete;
    Region& operator=(const Region&) = delete;
    uint32_t address() const { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(block_.virt)); }
    uint32_t size() const { return block_.size; }

private:
    MemoryBlock block_;
};

inline ZU_TSMUX_OpenParams_t open_params(const Region& region, uint32_t packet_size = 188, uint32_t rate = 0)
{
    ZU_TSMUX_OpenParams_t params{};
    params.u32TsPacketSize = packet_size;
    params.u8Reserved1 = 1;
    params.bCbrEnable = rate != 0;
    params.u16Pid0 = 0x1000;
    params.u16Pid1 = 0x100;
    params.u16Pid2 = 0x100;
    params.u16Pid3 = picture_pid;
    params.u32CbrBitrate = rate;
    params.u32OutBufVa = region.address();
    params.u32OutBufSize = region.size();
    return params;
}

/** An open multiplexer with pictures attached, driven through the contract as a recording drives it. */
class Recording {
public:
    explicit Recording(const ZU_TSMUX_OpenParams_t& params, bool pictures = true, bool sound = false)
    {
        EXPECT_EQ(ZU_TSMUX_Open(&params, &handle), ZU_OK);
        const ZU_TSMUX_PtsContinuity_t continuity{1, 0, 180000, 90000};
        EXPECT_EQ(ZU_TSMUX_SetAttr(handle, E_ZU_TSMUX_PARAMTYPE_PTS_CONTINUITY_CONTROL, &continuity), ZU_OK);
        if (pictures) {
            EXPECT_EQ(attach(E_ZU_TSMUX_STREAM_VIDEO_H264, picture_pid, 0xe0, &pictures_id), ZU_OK);
        }
        if (sound) {
            EXPECT_EQ(attach(E_ZU_TSMUX_STREAM_AUDIO_AAC, sound_pid, 0xc0, &sound_id), ZU_OK);
        }
    }
    ~Recording() { ZU_TSMUX_Close(handle); }
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    u32 attach(u32 type, u16 pid, u8 stream_id, u64* id)
    {
        const ZU_TSMUX_MediaSourceParams_t params{0, type, pid, stream_id, 0};
        return ZU_TSMUX_AttachMediaSource(handle, &params, id);
    }
    u32 start()
    {
        const ZU_TSMUX_StartParams_t params{};
        return ZU_TSMUX_Start(handle, &params);
    }
    u32 push(const Bytes& unit, uint64_t pts)
    {
        ZU_TSMUX_MediaData_t data{pictures_id, const_cast<u8*>(unit.data()), static_cast<u32>(unit.size()),
                                  pts};
        return ZU_TSMUX_PushMediaData(handle, &data);
    }
    /** Pushes as the encoder does, inside its callback for a picture captured at `us`. */
    u32 push_captured(const Bytes& unit, uint64_t us)
    {
        const FrameTimeInCallback time(us);
        return push(unit, no_pts);
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

    u32 handle = 0;
    u64 pictures_id = 0;
    u64 sound_id = 0;
    Bytes output;
};

/** Access units that begin as real ones do; what follows is noise without start codes. */
class UnitMaker {
public:
    Bytes make(bool idr, size_t size)
    {
        static constexpr uint8_t idr_head[] = {0, 0, 0, 1, 0x09, 0xf0, 0, 0, 0, 1, 0x67, 0x64, 0x20,
                                               0, 0, 0, 1, 0x68, 0xee, 0, 0, 0, 1, 0x65, 0x88};
        static constexpr uint8_t other_head[] = {0, 0, 0, 1, 0x09, 0xf0, 0, 0, 0, 1, 0x41, 0x9a};
        Bytes unit = idr ? Bytes(std::begin(idr_head), std::end(idr_head))
                         : Bytes(std::begin(other_head), std::end(other_head));
        while (unit.size() < size)
            unit.push_back(static_cast<uint8_t>(noise_() % 254 + 2));
        sent.insert(sent.end(), unit.begin(), unit.end());
        return unit;
    }
    size_t random_size(size_t least, size_t most)
    {
        return std::uniform_int_distribution<size_t>(least, most)(noise_);
    }
    Bytes sent; /**< all of them, in order */

private:
    std::minstd_rand noise_{7};
};

inline std::string text_of(const transport_stream::Findings& findings)
{
    std::string text;
    for (size_t i = 0; i < findings.size() && i < 20; ++i)
        text +=
            findings[i].kind + " at " + std::to_string(findings[i].packet) + ": " + findings[i].what + "\n";
    return text;
}

/** Stands for the process's life in a test program. */
class MultiplexerModule : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        const ZU_TSMUX_InitParams_t params{};
        ZU_TSMUX_Init(&params);
    }
    static void TearDownTestSuite() { ZU_TSMUX_DeInit(); }
};

} // namespace zu3host
