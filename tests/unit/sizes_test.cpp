/** Sizes at their boundaries, against counts by division, which cannot wrap. */
#include <limits>

#include "modules/inject_buffer.h"

#include "library_test.h"

namespace {

constexpr u32 mib2 = 2 * 1024 * 1024;
constexpr u32 boundaries[] = {65537, 0,        1,          15,         16,         17,
                              4095,  4096,     4097,       65535,      65536,      mib2 - 1,
                              mib2,  mib2 + 1, 0x7FFFFFFF, 0x80000000, 0x80000001, 0xFFFFFFFF};
/** Those that a test can have real bytes for. */
constexpr u32 real_sizes[] = {1,    15,    16,    17,       4095, 4096,
                              4097, 65535, 65536, mib2 - 1, mib2, mib2 + 1};

/** `value` rounded up; 0 = there is no such multiple of 32 bits. */
u64 rounded(u64 value, u64 multiple)
{
    const u64 up = (value + multiple - 1) / multiple * multiple;
    return up > std::numeric_limits<u32>::max() ? 0 : up;
}

/** Bytes of a captured picture when twice as many have 32 bits, otherwise 0. */
u64 picture_bytes(u64 capture_width, u64 capture_height)
{
    const u64 lines = capture_height + (capture_height + 63) / 64 * 64 / 2;
    const bool fits =
        capture_width != 0 && capture_height != 0 && lines <= 0x7FFFFFFF / capture_width;
    return fits ? capture_width * lines : 0;
}

class Sizes : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        // An encoder that claims to accept anything leaves every refusal to the library.
        mw.settings.encoder = {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 1, 4096, {}};
    }
    void next()
    {
        steps::close_all();
        EXPECT_CALLS(mw.ledger_problems(), {});
        mw.take_calls();
        mw.take_logs();
    }
    ZU_CAP_Output_t capture_output() { return mw.last().capture.stOutput; }
};

// Catches a picture size that overflows into a small buffer, or is refused although it fits.
TEST_F(Sizes, APictureOfARecordingIsCountedExactlyOrRefused)
{
    // wraps into something that fits
    std::vector<std::pair<u32, u32>> sizes = {{0xAAAABA10, 0xFFFE86E0}};
    for (const u32 width : boundaries)
        for (const u32 height : boundaries)
            sizes.emplace_back(width, height);
    for (const auto& [width, height] : sizes) {
        SCOPED_TRACE(middleware::text(width, " and ", height));
        const u64 capture_width = rounded(width ? width : 640, 16);
        const u64 capture_height = rounded(height ? height : 480, 32);
        const u64 bytes = picture_bytes(capture_width, capture_height);
        ASSERT_EQ(steps::record_pictures(0, width, height), bytes != 0);
        EXPECT_EQ(mw.count("ZU_CAP_Open"), bytes != 0) << "none for a refused size";
        if (bytes != 0) {
            EXPECT_EQ(capture_output().u32OutWidth, capture_width);
            EXPECT_EQ(capture_output().u32OutHeight, capture_height);
            EXPECT_EQ(capture_output().u32OutSize, 2 * bytes);
        }
        next();

        mw.offer_inject_buffer(4096);
        const u64 rounded_height = rounded(height, 32), rounded_width = rounded(width, 16);
        const u64 needed = rounded_width / 16 * rounded_height * 24;
        for (const u64 offered : {needed == 0 ? 0 : needed - 1, needed}) {
            mw.settings.claimed_inject_size = static_cast<u32>(offered);
            CapEnc_OpenParams params = {width, height, 30, 1000000, 1, 1, 0};
            ASSERT_EQ(video_capenc_open(&params), bytes != 0 ? 0 : -1);
            EXPECT_EQ(mw.count("ZU_VENC_Open"), bytes != 0);
            if (bytes != 0) {
                EXPECT_EQ(params.width, rounded_width);
                EXPECT_EQ(params.height, rounded_height);
                EXPECT_EQ(_bUseEntireInjectBuf, static_cast<u32>(offered) >= needed);
            }
            next();
        }
    }
}

// Catches a rate that is clamped, rounded or replaced, and a packet size that is not checked.
TEST_F(Sizes, RatesAndPacketSizesArriveAsTheyWereGiven)
{
    for (const u32 value : boundaries) {
        SCOPED_TRACE(value);
        SCREENRECORD_Init();
        ASSERT_TRUE(steps::open(0) && steps::set_video(0, "cap", nullptr, 64, 64, value));
        EXPECT_EQ(mw.last().encoder.u32FrameRate, value ? value : 30);
        ASSERT_EQ(steps::set_mux(0, value, value), 1u);
        const auto mux = mw.last().multiplexer;
        EXPECT_EQ(mux.u32TsPacketSize, 188u);
        EXPECT_EQ(mux.u32CbrBitrate, u64{value} % 4096 * 1048576) << "modulo 2^32, as the field is";
        EXPECT_EQ(mux.bCbrEnable, value != 0);
        next();
        CapEnc_OpenParams params = {64, 64, value, value, 1, 1, 0};
        ASSERT_EQ(video_capenc_open(&params), 0);
        EXPECT_EQ(mw.last().encoder.u32Bitrate, value / 1024);
        ASSERT_EQ(video_capenc_setBitRate(value), 0);
        EXPECT_TRUE(
            mw.take_calls().back().ends_with(", 0x1, " + std::to_string(value / 1024) + ")=0"));
        next();
    }
}

// Catches an inject buffer that is misaligned, and an alignment of 0 that divides or wraps.
TEST_F(Sizes, TheInjectBuffersAddressIsRoundedAndNeverWraps)
{
    mw.offer_inject_buffer(64 * 64 * 3 / 2);
    for (u32 alignment : {0u, 1u, 16u, 4096u, 65536u, 0x80000000u}) {
        mw.settings.encoder.u32MemAlign = alignment;
        ASSERT_TRUE(steps::capture_encode(64, 64));
        const u64 address = _stEntireInjectBuf.u32VirtAddr, unit = alignment ? alignment : 1;
        EXPECT_EQ(capture_output().u64VirtAddr, (address + unit - 1) / unit * unit);
        next();
    }
}

// Catches a copy past the picture or the encoder's buffer, and one that stops short of both.
TEST_F(Sizes, NeitherMoreThanThePictureNorThanTheEncodersBufferIsCopied)
{
    constexpr u8 not_the_picture = 0xEE;
    for (const auto& [width, height] : {std::pair(16u, 32u), {64u, 64u}, {640u, 480u}}) {
        const u32 bytes = static_cast<u32>(picture_bytes(width, height));
        Bytes memory(bytes, 1);
        for (size_t i = 0; i < bytes; i++)
            memory[i] = static_cast<u8>(i % 0xED);
        const Bytes picture = memory;
        // behind the picture
        memory.resize(bytes + mib2 + 1, not_the_picture);
        std::vector<u32> lent = {bytes - 1, bytes, bytes + 1};
        lent.insert(lent.end(), std::begin(real_sizes), std::end(real_sizes));
        for (const u32 size : lent) {
            SCOPED_TRACE(middleware::text(bytes, " and ", size));
            mw.map_physical(luma_address, memory.data(), bytes);
            mw.settings.encoder_input_size = size;
            ASSERT_TRUE(steps::record_pictures(0, width, height));
            EXPECT_EQ(mw.fire_picture({.luma = luma_address}),
                      // AddressSanitizer watches the encoder's buffer
                      1u);
            const Bytes got = mw.last_encoder_input();
            ASSERT_EQ(got.size(), size);
            const auto end = got.begin() + std::min(size, bytes);
            EXPECT_TRUE(std::equal(got.begin(), end, picture.begin()));
            EXPECT_EQ(std::count(end, got.end(), not_the_picture), 0);
            next();
        }
    }
}

// Catches a last read of a file that is lost, sent twice, or passes the encoder's buffer.
TEST_F(Sizes, ASourceFileFillsWhatTheEncoderLendsToTheLastByte)
{
    for (const u32 lent : real_sizes) {
        for (const u32 size : {lent - 1, lent, lent + 1}) {
            SCOPED_TRACE(middleware::text(size, " and ", lent));
            mw.add_file("a.nv12", Bytes(size, 7));
            mw.settings.encoder_input_size = lent;
            ASSERT_TRUE(steps::record(1, "a.nv12"));
            mw.advance(28 * 4);
            const auto inputs = mw.encoder_inputs();
            EXPECT_EQ(mw.count("ZU_VENC_WriteBufferComplete"),
                      static_cast<int>((u64{size} + lent - 1) / lent));
            if (size != 0) {
                EXPECT_EQ(inputs.back().u32DataSize, lent);
                const Bytes last = mw.last_encoder_input();
                EXPECT_EQ(std::count(last.begin(), last.end(), 7), (size - 1) % lent + 1);
            }
            next();
        }
    }
}

// Catches a reader that mistakes an empty buffer for the end of its file, or reads into it.
TEST_F(Sizes, AnEncoderThatLendsNoByteIsAskedAgain)
{
    mw.settings.encoder_input_size = 0;
    mw.add_file("a.nv12", Bytes(16, 7));
    ASSERT_TRUE(steps::record(1, "a.nv12"));
    mw.advance(1000);
    EXPECT_GE(mw.count("ZU_VENC_QueryBuffer"), 3);
    EXPECT_EQ(mw.count("ZU_FS_Fread"), 0);
    next();
}

// Catches a frame that is cut, overruns the caller's buffer, or is refused although it fits.
TEST_F(Sizes, AFrameIsHandedOutWholeOrNotAtAll)
{
    ASSERT_TRUE(steps::capture_encode(64, 64));
    EXPECT_EQ(video_capenc_getMaxEsSize(), mib2);
    for (const u32 size : real_sizes) {
        for (const u64 room :
             {u64{0}, u64{1}, u64{size} - 1, u64{size}, u64{size} + 1, u64{1} << 32, ~u64{0}}) {
            SCOPED_TRACE(middleware::text(size, " and ", room));
            mw.fire_encoded_frame({.bytes = Bytes(size, 7), .type = 0xFF});
            mw.take_logs();
            // A buffer of exactly this size, behind whose end AddressSanitizer watches.
            Bytes buffer(std::min<u64>(room, size));
            CapEnc_EsInfo info = {};
            const bool kept = size <= mib2, fits = !kept || room >= size;
            EXPECT_EQ(video_capenc_getES(buffer.data(), room, &info), fits ? 0 : -1);
            EXPECT_EQ(info.u64DataSize, kept ? size : 0u);
            const std::string said =
                middleware::text("E [video_capenc_getES_lock]bufferSize(", room,
                                 ") is smaller than dataSize(", size, "), drop frame !");
            EXPECT_CALLS(errors(), fits ? std::vector<std::string>() : std::vector{said});
            EXPECT_EQ(static_cast<size_t>(std::count(buffer.begin(), buffer.end(), 7)),
                      kept && fits ? size : 0);
        }
    }
}

// Catches a write past the batch if the multiplexer claims more bytes than were asked for.
TEST_F(Sizes, TheWriterBelievesNoMoreThanItAskedFor)
{
    for (const u32 claimed : boundaries) {
        SCOPED_TRACE(claimed);
        mw.settings.claimed_copy = claimed;
        ASSERT_TRUE(steps::record(0));
        // AddressSanitizer watches the batch
        mw.advance(1000);
        steps::close(0);
        const auto copies = static_cast<u32>(mw.count("ZU_TSMUX_CopyOutputStream"));
        EXPECT_EQ(mw.file("out.ts").size(), u64{std::min(claimed, 65536u)} * copies);
        next();
    }
}

// Catches a read of less than a buffer, a report beyond the caller's room, and a cut 64-bit size.
TEST_F(Sizes, SoundIsReadOnceAWholeBufferIsThere)
{
    ASSERT_EQ(audio_cap_open(), 0);
    Bytes buffer(mib2 + 1);
    std::vector<u64> rooms(std::begin(boundaries), std::end(boundaries));
    rooms.insert(rooms.end(), {u64{1} << 32, (u64{1} << 32) + 1, ~u64{0}});
    for (const u32 level : boundaries) {
        for (const u64 room : rooms) {
            for (const u32 claimed :
                 {0u, static_cast<u32>(std::min<u64>(room, 0xFFFFFFFF)), 0xFFFFFFFFu}) {
                SCOPED_TRACE(middleware::text(level, " and ", room));
                mw.settings.audio_level = level;
                mw.settings.claimed_read = claimed;
                mw.take_calls();
                u64 size = 5;
                EXPECT_EQ(audio_cap_getPCM(buffer.data(), room, &size), 0);
                const bool reads = level >= room;
                EXPECT_EQ(size, reads ? std::min<u64>(room, claimed) : 0)
                    << "no more than there is room for";
                EXPECT_EQ(
                    mw.calls_of({"ZU_ACAP_Read(0x31, size=" + std::to_string(room) + ")"}).size(),
                    reads);
            }
        }
    }
}

// Catches a block of stills whose size overflows, or is refused although it fits.
TEST_F(Sizes, ABlockOfStillsIsAllocatedExactlyOrNotAskedFor)
{
    // by format
    const u64 bytes_of_4_pixels[] = {8, 8, 16, 6};
    const s32 counts[] = {1, 2, 4096, 65536, 0x7FFFFFFF};
    for (const u32 width : boundaries)
        for (const u32 height : boundaries)
            for (u32 format = 0; format < 4; format++)
                for (const s32 count : counts) {
                    const u64 pitch = u64{width ? width : 640} * bytes_of_4_pixels[format] / 4;
                    const u64 lines = height ? height : 480, frames = static_cast<u32>(count);
                    // A product that 64 bits may not hold is too much anyway.
                    const bool counted = pitch <= (u64{1} << 32) / lines;
                    const u64 block =
                        counted ? (pitch * lines + 4095) / 4096 * 4096 * frames : u64{1} << 32;
                    const bool asked = block < u64{1} << 32;
                    Cap_OpenParams params = {width, height, format, 0, count};
                    // only the request matters here
                    mw.fail("ZU_OS_AllocateIommuMemory");
                    ASSERT_EQ(video_cap_open(&params), 0);
                    const std::string size = " size=" + std::to_string(block) + " ";
                    EXPECT_EQ(mw.calls_of({"ZU_OS_AllocateIommuMemory(tag=vdec_fb" + size}).size(),
                              asked)
                        << width << "x" << height << " format " << format << " times " << count;
                    EXPECT_EQ(mw.count("ZU_OS_AllocateIommuMemory"), asked);
                    mw.clear_script();
                    video_cap_close();
                    mw.take_calls();
                    mw.take_logs();
                }
}

// Catches a file name that is cut, or that overruns a buffer of fixed size.
TEST_F(Sizes, NamesOfEveryLengthAreCopiedWhole)
{
    for (const u32 length : {1u, 15u, 16u, 17u, 4095u, 4096u, 4097u, 65535u, 65536u}) {
        const std::string name(length, 'n');
        mw.add_file(name, Bytes(16));
        SCREENRECORD_Init();
        ASSERT_EQ(steps::open(0, name.c_str()), 1u);
        ASSERT_TRUE(steps::set_video(0, name.c_str()) && steps::set_audio(0, name.c_str()));
        EXPECT_EQ(mw.calls_of({"ZU_FS_Fopen(" + name + ", "}).size(), 3u) << length;
        next();
    }
}

} // namespace
