/**
 * Every call fails: each scenario is run once for every middleware call it makes, with that call failing once
 * and from there on, and must end with nothing open, nothing called on a dead handle, and working when it is
 * run again.
 */
#include <srglworker/SrGlWorker.h>

#include "library_test.h"

namespace {

struct Scenario {
    const char* name;
    std::function<void(middleware::Middleware&)>
        run;                     /**< goes on, whatever fails, as a careless client would */
    std::function<bool()> works; /**< the opening steps, when nothing fails */
};

void drive_callbacks(middleware::Middleware& mw)
{
    static std::vector<u8> picture(640 * 480 * 2);
    mw.map_physical(0x500000, picture.data(), static_cast<u32>(picture.size()));
    mw.fire_picture({.luma = 0x500000, .chroma = 0x500000 + 640 * 480});
    mw.fire_encoded_frame({.bytes = {1, 2, 3}, .type = 0xFF, .pts = 1});
    mw.fire_encoded_frame({.bytes = {1, 2, 3}, .pts = 2, .input_index = 1});
}

bool capture_encode(middleware::Middleware& mw, bool inject)
{
    if (inject)
        mw.offer_inject_buffer(640 * 480 * 3);
    CapEnc_OpenParams params = {640, 480, 30, 1000000, 1, 0x200, 0};
    return video_capenc_open(&params) == 0 &&
           (!inject || video_capenc_setWatermark(android::WatermarkParams()) == 0) &&
           video_capenc_start(0) == 0;
}

void take_frames()
{
    u8 frame[16];
    CapEnc_EsInfo info = {};
    video_capenc_getES(frame, sizeof(frame), &info);
    video_capenc_setBitRate(2000000);
    video_capenc_requestKeyFrame();
}

class FaultInjection : public LibraryTest {
protected:
    void SetUp() override
    {
        LibraryTest::SetUp();
        mw.add_file("a.nv12", middleware::Bytes(1000));
        mw.settings.encoder_input_size = 640 * 480 * 3 / 2;
        mw.settings.first_fd = 3;
        // What a call that fails leaves by its nature, or what clean-up calls on modules that are half open.
        for (const char* tolerated :
             {"ZU_TSMUX_SetAttr is called on unknown handle 0x0", "nobody ever registered",
              "ZU_VENC_QueryBuffer is called on unknown handle 0x0",
              "ZU_VENC_WriteBufferComplete is called on unknown handle 0x0"})
            mw.tolerate_problem(tolerated);
    }

    std::vector<Scenario> scenarios()
    {
        const auto recording = [this](middleware::Middleware& m) {
            drive_callbacks(m);
            m.queue_output(middleware::Bytes(0x9000));
            m.advance(300);
        };
        return {
            {"one call", [=](auto& m) { steps::one_call(), recording(m), stopScreenRecord(); },
             [] { return steps::one_call() == 0; }},
            {"slot 0", [=](auto& m) { steps::record(0), recording(m), steps::stop(0), steps::close(0); },
             [] { return steps::record(0) != 0; }},
            {"files on slot 1",
             [=](auto& m) { steps::record(1, "a.nv12", "a.nv12"), m.advance(300), steps::close(1); },
             [] { return steps::record(1, "a.nv12", "a.nv12") != 0; }},
            {"time limit", [=](auto& m) { steps::one_call(1), recording(m), m.advance(3000); },
             [] { return steps::one_call() == 0; }},
            {"capture-encode, copied",
             [this](auto& m) { capture_encode(m, false), drive_callbacks(m), take_frames(); },
             [this] { return capture_encode(mw, false); }},
            {"capture-encode, injected",
             [this](auto& m) { capture_encode(m, true), drive_callbacks(m), take_frames(); },
             [this] { return capture_encode(mw, true); }},
            {"stills",
             [](auto&) {
                 Cap_OpenParams params = {640, 480, 2, 0, 2};
                 Cap_Buffer buffers[2];
                 video_cap_open(&params), video_cap_getCaptureBuffers(buffers, 2), video_cap_captureScreen(1);
             },
             [] {
                 Cap_OpenParams params = {640, 480, 2, 0, 2};
                 return video_cap_open(&params) == 0 && video_cap_captureScreen(1) == 0;
             }},
            {"PCM",
             [](auto&) {
                 u8 buffer[64];
                 u64 size = 0;
                 audio_cap_open(), audio_cap_start(), audio_cap_getPCM(buffer, 0, &size), audio_cap_stop();
             },
             [] { return audio_cap_open() == 0 && audio_cap_start() == 0; }},
        };
    }

    /** Cleans up as a client does, looks at what is left, and at whether the scenario works right afterwards.
     */
    void expect_recovery(const Scenario& scenario)
    {
        close_all();
        mw.clear_script();
        close_all(); // a clean-up call that failed may have left its module for a second close
        EXPECT_CALLS(mw.ledger_problems(), {});
        EXPECT_EQ(middleware::library_allocations_left(), 0u);
        EXPECT_TRUE(scenario.works());
        close_all();
        mw.take_calls();
        mw.take_logs();
    }
};

TEST_F(FaultInjection, EveryCallFails)
{
    int injections = 0;
    for (const Scenario& scenario : scenarios()) {
        bool came = true;
        for (int number = 1; came && !HasFailure(); number++) {
            SCOPED_TRACE(std::string(scenario.name) + ", call " + std::to_string(number));
            mw.fail_call_number(number);
            scenario.run(mw);
            came = !mw.script_pending();
            injections += came;
            expect_recovery(scenario);
        }
    }
    printf("%d injections of a failing call\n", injections);
}

TEST_F(FaultInjection, EverySecondCallFailsDuringTheCleanUpAfterAFirst)
{
    int injections = 0;
    for (const Scenario& scenario : scenarios()) {
        for (int first = 1; first < 60 && !HasFailure(); first += 7) {
            bool came = true;
            for (int second = 1; came && !HasFailure(); second++) {
                SCOPED_TRACE(std::string(scenario.name) + ", calls " + std::to_string(first) + " and " +
                             std::to_string(second) + " behind it");
                mw.fail_call_number(first);
                mw.fail_call_number(first + second);
                scenario.run(mw);
                came = !mw.script_pending();
                injections += came;
                expect_recovery(scenario);
            }
        }
    }
    printf("%d injections of a second failing call\n", injections);
}

TEST_F(FaultInjection, EveryAllocationFails)
{
    for (const Scenario& scenario : scenarios()) {
        bool failed = true;
        for (int number = 1; failed && !HasFailure(); number++) {
            SCOPED_TRACE(std::string(scenario.name) + ", allocation " + std::to_string(number));
            {
                const middleware::AllocationWindow window(number);
                scenario.run(mw);
                failed = window.failed();
            }
            expect_recovery(scenario);
        }
    }
}

} // namespace
