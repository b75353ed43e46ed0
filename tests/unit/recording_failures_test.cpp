/** What a recording's control calls refuse, and in which order. */
#include "library_test.h"

namespace {

using RecordingFailures = LibraryTest;

constexpr const char* busy = "Some modules are Transcoding now, please stop transcoding first! ";

TEST_F(RecordingFailures, ChecksComeInTheirOrderAndChangeNothing)
{
    using Operation = u32 (*)(u32*);
    struct Case {
        const char* name;
        Operation call;
        bool refuses_running;
        const char* last_check; /**< the argument check behind the common ones, none = no argument */
    };
    const Case cases[] = {
        {"SCREENRECORD_Open", [](u32* slot) { return SCREENRECORD_Open(slot, nullptr); }, true,
         "Error: invalid destination file name"},
        {"SCREENRECORD_SetVideo",
         [](u32* slot) { return SCREENRECORD_SetVideo(slot, nullptr, nullptr, nullptr, nullptr, nullptr); },
         true, "Error: invalid Source name"},
        {"SCREENRECORD_SetAudio",
         [](u32* slot) { return SCREENRECORD_SetAudio(slot, nullptr, nullptr, nullptr); }, true,
         "Error: invalid Source name"},
        {"SCREENRECORD_SetTsMux", [](u32* slot) { return SCREENRECORD_SetTsMux(slot, nullptr, nullptr); },
         true, "Need to Assign one source!"},
        {"SCREENRECORD_Start", [](u32* slot) { return SCREENRECORD_Start(slot); }, false,
         "Need to Assign one source!"},
        {"SCREENRECORD_Stop", [](u32* slot) { return SCREENRECORD_Stop(slot); }, false, nullptr},
        {"SCREENRECORD_Close", [](u32* slot) { return SCREENRECORD_Close(slot); }, false, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        u32 slot = 0, none = 2;
        const std::string at = "[" + std::string(c.name) + "]";
        forget();
        EXPECT_EQ(c.call(nullptr), 0u);
        EXPECT_EQ(c.call(&none), 0u);
        EXPECT_EQ(c.call(&slot), 0u);
        EXPECT_CALLS(mw.take_logs(), {"E " + at + "INVALID Trancode Id!", "E " + at + "INVALID Trancode Id!",
                                      "D " + at + "init module first!"});
        EXPECT_CALLS(mw.take_calls(), {});
        ASSERT_EQ(SCREENRECORD_Init(), 1u);
        if (c.last_check) {
            forget();
            EXPECT_EQ(c.call(&slot), 0u);
            EXPECT_CALLS(mw.take_logs(), {"E " + at + c.last_check});
        }
        if (c.refuses_running) {
            ASSERT_TRUE(steps::record(0));
            forget();
            EXPECT_EQ(c.call(&slot), 0u);
            EXPECT_CALLS(mw.take_logs(), {"D " + at + busy});
            EXPECT_EQ(task(0, E_SCREENRECORD_MODULE_VCAP).bRunning, 1);
            steps::close(0);
        }
        SCREENRECORD_DeInit();
    }
}

TEST_F(RecordingFailures, StartAsksForSourceMultiplexerAndFileInThatOrder)
{
    SCREENRECORD_Init();
    forget();
    EXPECT_EQ(steps::start(0), 0u);
    steps::open(0);
    steps::set_video(0);
    EXPECT_EQ(steps::start(0), 0u);
    steps::set_mux(0);
    const u32 file = task(0, E_SCREENRECORD_MODULE_TSMUX).u32OutFile.Exchange(0);
    EXPECT_EQ(steps::start(0), 0u);
    EXPECT_CALLS(errors(), {error_of("SCREENRECORD_Start", "Need to Assign one source!"),
                            error_of("SCREENRECORD_Start", "[DEMO TRANCODE] Please Set Mux First!"),
                            error_of("SCREENRECORD_Start", "[DEMO TRANCODE] Please Open Transcode First!")});
    task(0, E_SCREENRECORD_MODULE_TSMUX).u32OutFile = file;
}

TEST_F(RecordingFailures, ADestinationCalledWifiIsNoFile)
{
    SCREENRECORD_Init();
    forget();
    EXPECT_EQ(steps::open(0, "wifi"), 0u);
    EXPECT_CALLS(errors(), {error_of("SCREENRECORD_Open", "no support!!")});
    EXPECT_EQ(mw.count("ZU_FS_Fopen"), 0);
    for (const char* name : {"Wifi", "wifi2"}) {
        EXPECT_EQ(steps::open(0, name), 1u) << name;
        steps::close(0);
    }
}

TEST_F(RecordingFailures, ARegionWithoutAddressIsRefused)
{
    SCREENRECORD_Init();
    ASSERT_TRUE(steps::open(0) && steps::set_audio(0));
    forget();
    mw.fail("ZU_OS_Pa2NonCachedVa");
    mw.fail("ZU_OS_Pa2CachedVa");
    EXPECT_EQ(steps::set_mux(0), 0u);
    EXPECT_CALLS(errors(),
                 {error_of("_SCREENRECORD_OpenTsmux", "phyMemAddr: 0x2000000 phyMiuBaseAddr: 0x100000000"),
                  error_of("_SCREENRECORD_OpenTsmux", "Error: failed to ZU_OS_PA2CachedVA(0x2000000)"),
                  error_of("SCREENRECORD_SetTsMux", "[DEMO TRANSCODE] Open Tsmux Failed!")});
}

} // namespace
