/** The middleware's threads against a close: after it, nothing late touches anything. */

#include <srglworker/SrGlWorker.h>

#include "library_test.h"

namespace {

class CloseRaces : public LibraryTest {
protected:
    void record()
    {
        mw.map_physical(at, picture_.data(), static_cast<u32>(picture_.size()));
        ASSERT_TRUE(steps::record(0));
    }

    /** Starts capture-encode and, on a thread, a watermark that is drawn until the gate opens. */
    std::future<u32> draw_watermark(middleware::Gate& held)
    {
        mw.settings.first_fd = 1;
        const u64 start = mw.offer_inject_buffer(0x80000).physical;
        EXPECT_TRUE(steps::capture_encode());
        EXPECT_EQ(video_capenc_setWatermark(android::WatermarkParams()), 0);
        mw.inside("SrGlWorker::render", [&held] { held.wait(); });
        auto picture = mw.fire_on_thread(
            [this, start] { return mw.fire_picture({.luma = start, .chroma = start}); });
        EXPECT_TRUE(held.wait_for_arrival());
        return picture;
    }

    static constexpr u64 at = 0x5000;

private:
    std::vector<u8> picture_ = std::vector<u8>(640 * 480 * 2);
};

// Catches a late callback that still pushes a frame, feeds the encoder or counts in the slot.
TEST_F(CloseRaces, CallbacksAfterACloseWriteNothing)
{
    record();
    mw.fire_picture({.luma = at});
    mw.fire_encoded_frame({.bytes = {1}, .pts = 5});
    ASSERT_EQ(steps::close(0), 1u);
    const auto traces = [&] { // that a late callback could change
        const SCREENRECORD_TaskCtrl_s& venc = task(0, VENC);
        return std::vector<u64>{
            mw.pushed().size(), mw.encoder_inputs().size(),
            venc.u32InBufIndex, venc.u32LastInBufIndex,
            venc.u64FirstPts,   static_cast<u64>(mw.count("ZU_CAP_ProcessBufDone"))};
    };
    const auto before = traces();
    EXPECT_EQ(mw.fire_picture({.luma = at}), 1u);
    EXPECT_EQ(mw.fire_encoded_frame({.bytes = {1}, .pts = 9, .input_index = 7}), ZU_FAILURE);
    EXPECT_EQ(mw.fire_event(middleware::Kind::audio, 1), ZU_FAILURE);
    mw.fire_event(middleware::Kind::multiplexer, 1);
    EXPECT_EQ(traces(), before);
}

// Catches a device handle that a callback can use after some step of the close has given it up.
TEST_F(CloseRaces, CallbacksInsideEveryStepOfACloseCallNothingDead)
{
    bool came = true;
    for (int step = 1; came; step++) {
        for (const bool behind : {false, true}) {
            SCOPED_TRACE((behind ? "behind step " : "inside step ") + std::to_string(step));
            record();
            mw.settle();
            came = false;
            std::vector<std::future<u32>> callbacks;
            const auto fire = [&] {
                came = true;
                callbacks.push_back(
                    mw.fire_on_thread([&] { return mw.fire_picture({.luma = at}); }));
                callbacks.push_back(mw.fire_on_thread(
                    [&] { return mw.fire_encoded_frame({.bytes = {1}, .pts = 5}); }));
            };
            mw.inside("*", fire, {.nth = step, .behind = behind});
            EXPECT_EQ(steps::close(0), 1u);
            mw.clear_script();
            // joins them
            callbacks.clear();
            SCREENRECORD_DeInit();
            EXPECT_CALLS(mw.ledger_problems(), {});
            mw.reset();
        }
    }
}

// Catches a close that frees a device under a callback, or waits longer than the callback stays.
TEST_F(CloseRaces, ACloseWaitsForTheCallbackThatIsInside)
{
    for (const char* inside : {"ZU_CAP_ProcessBufDone", "ZU_VENC_WriteBufferComplete",
                               "ZU_TSMUX_PushMediaData", "ZU_VENC_WriteBufferComplete",
                               "ZU_TSMUX_PushMediaData"}) { // twice: a gate tells epochs apart
        SCOPED_TRACE(inside);
        record();
        middleware::Gate held;
        mw.inside(inside, [&] { held.wait(); });
        std::future<u32> callback = mw.fire_on_thread([&] {
            return std::string_view(inside) == "ZU_TSMUX_PushMediaData"
                       ? mw.fire_encoded_frame({.bytes = {1}, .pts = 5})
                       : mw.fire_picture({.luma = at});
        });
        ASSERT_TRUE(held.wait_for_arrival());
        // the close has begun by then
        mw.inside("ZU_VENC_Stop", [&] { held.open(); });
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(steps::close(0), 1u);
        callback.get();
        const auto waited = std::chrono::steady_clock::now() - begin;
        EXPECT_LT(waited, std::chrono::seconds(4)) << "it was not told that the callback left";
        SCREENRECORD_DeInit();
        EXPECT_CALLS(mw.ledger_problems(), {});
    }
}

// Catches an encoder that is closed while a file's reader fills its buffer.
TEST_F(CloseRaces, ACloseOfTheEncoderWaitsForTheReaderThatFillsItsBuffer)
{
    mw.add_file("film.ts", Bytes(100000));
    middleware::Gate held;
    std::atomic<bool> completed = false;
    // its first one, which may come at once
    mw.inside("ZU_FS_Fread", [&] { held.wait(); });
    mw.inside("ZU_VENC_WriteBufferComplete", [&] { completed = true; });
    ASSERT_TRUE(steps::record(0, "film.ts"));
    ASSERT_FALSE(steps::capture_encode());
    const std::future<u32> time = mw.fire_on_thread([&] {
        // the reader's next pass
        ZU_OS_DelayTask(1000);
        return 0u;
    });
    ASSERT_TRUE(held.wait_for_arrival());
    mw.inside("ZU_VENC_Close", [&] { EXPECT_TRUE(completed); });
    const std::future<void> release = std::async(std::launch::async, [&] {
        while (task(0, VENC).s32MutexId != -1) // the close waits from then on
            std::this_thread::yield();
        held.open();
    });
    EXPECT_EQ(video_capenc_close(), 0);
    EXPECT_TRUE(completed);
}

// Catches a buffer descriptor that another slot's close gives back while a watermark is drawn.
TEST_F(CloseRaces, TheInjectBuffersDescriptorIsNotGivenBackUnderARenderer)
{
    mw.add_file("film.ts", Bytes(100000));
    ASSERT_TRUE(SCREENRECORD_Init());
    middleware::Gate held;
    std::atomic<bool> given_back = false;
    std::future<u32> picture = draw_watermark(held);
    ASSERT_TRUE(steps::open(1) && steps::set_video(1, "film.ts"));
    mw.inside("ZU_CAP_ProcessBufDone", [&] { EXPECT_FALSE(given_back); });
    mw.inside("ZU_OS_IommuOperation:PUT_BUFFD", [&] { given_back = true; });
    mw.inside("ZU_VENC_Stop", [&] { held.open(); });
    EXPECT_EQ(steps::close(1), 1u);
    picture.get();
    EXPECT_TRUE(given_back);
}

// Catches a stop that deletes the worker while a picture is drawn, which no capture stop waits for.
TEST_F(CloseRaces, AStopWaitsForThePictureThatIsBeingDrawn)
{
    middleware::Gate held;
    std::future<u32> picture = draw_watermark(held);
    auto stopped = std::async(std::launch::async, [] { return video_capenc_stop(); });
    while (mw.count("ZU_CAP_DisconnectInput") == 0)
        std::this_thread::yield();
    for (int i = 0; i < 200; i++) { // time enough for a stop that does not wait
        ASSERT_EQ(mw.count("SrGlWorker::reset"), 0);
        std::this_thread::yield();
    }
    held.open();
    EXPECT_EQ(stopped.get(), 0);
    EXPECT_EQ(mw.count("SrGlWorker::reset"), 1);
    picture.get();
}

// Catches a worker deleted under a callback that outlasts a drain, at that drain or the next.
TEST_F(CloseRaces, ACallbackThatOutlastsADrainKeepsItsWorkerAndIsWaitedForAgain)
{
    if (runs_slowly)
        GTEST_SKIP() << "four drains take 20 s of real time; once is enough";
    middleware::Gate held;
    std::atomic<bool> returned = false;
    std::future<u32> picture = draw_watermark(held);
    mw.inside("ZU_CAP_ProcessBufDone", [&] { returned = true; });
    EXPECT_EQ(video_capenc_stop(), 0);
    EXPECT_EQ(video_capenc_setWatermark(android::WatermarkParams()), -1)
        << "only one can be put aside";
    EXPECT_EQ(mw.count("SrGlWorker::reset"), 0) << "the callback is inside the worker";
    mw.tolerate_problem("ZU_CAP_ProcessBufDone is called on dead");
    mw.inside("ZU_CAP_Close", [&] { held.open(); });
    mw.inside("ZU_VENC_Close", [&] { EXPECT_TRUE(returned); });
    EXPECT_EQ(video_capenc_close(), 0);
    picture.get();
    EXPECT_EQ(video_capenc_stop(), 0);
    EXPECT_EQ(mw.count("SrGlWorker::reset"), 1);
}

/** A client's call that meets the time limit, and its answer. */
const struct LimitClient {
    const char* name;
    s64 (*call)();
    s64 answer;
} limit_clients[] = {
    {"stop", [] { return s64{steps::stop(0)}; }, 1},
    {"close", [] { return s64{steps::close(0)}; }, 1},
    {"open", [] { return s64{steps::open(0, "next.ts")}; }, 1},
    {"stopScreenRecord", [] { return s64{stopScreenRecord()}; }, 0},
};

class TimeLimit : public CloseRaces {
protected:
    /** Lets the later of both come at a call of the earlier one; answers as the client's call. */
    s64 meet(const LimitClient& client, bool client_first, const middleware::When& when)
    {
        s64 answer = -100;
        std::future<u32> met;
        const auto call = [&] {
            answer = client.call();
            return 0u;
        };
        const auto come = [&] {
            if (client_first)
                ZU_OS_DelayTask(200);
            else
                met = mw.fire_on_thread(call);
        };
        mw.inside("*", come, when);
        if (client_first)
            call();
        else
            mw.advance(300); // the writer's pass and its close
        mw.clear_script();
        if (met.valid())
            met.get();
        else if (!client_first)
            call();
        mw.advance(300);
        return answer;
    }
};

// Catches a slot that the time limit and a client's call close twice, never, or answer wrongly.
TEST_F(TimeLimit, MeetsAClientAtEveryPhaseInBothOrders)
{
    constexpr int trials = runs_slowly ? 1000 : 10000;
    // nothing, less than a batch, just one, more
    const u32 outputs[] = {0, 188, 0x10000, 0x18000};
    for (int trial = 0; trial < trials && !HasFailure(); trial++) {
        const LimitClient& client = limit_clients[trial % 4];
        const bool behind = trial / 4 % 2, client_first = trial / 8 % 2;
        // A close makes fewer than 60 calls: some come after it.
        const int phase = trial / 16 % 60 + 1;
        SCOPED_TRACE(middleware::text(client.name, client_first ? " before" : " after",
                                      " the limit, phase ", phase, behind ? " behind" : ""));
        EXPECT_EQ(steps::one_call(1), 0);
        mw.settle();
        mw.queue_output(Bytes(outputs[trial / 16 / 60 % 4], 7));
        // the next pass but one finds the limit passed
        mw.set_now_us(mw.now_ms() * 1000 + 1'950'000);
        const s64 answer = meet(client, client_first, {.nth = phase, .behind = behind});
        // An open comes either behind the writer's close or to a slot that still records.
        const bool refused =
            std::string_view(client.name) == "open" && client.answer != mw.count("ZU_FS_Fopen") - 1;
        EXPECT_EQ(answer, refused ? 0 : client.answer);
        EXPECT_EQ(mw.count("ZU_FS_Fclose"), 1);
        steps::close_all();
        EXPECT_CALLS(mw.ledger_problems(), {});
        mw.reset();
    }
}

// Catches a data race between callbacks and a slot that opens and closes, under ThreadSanitizer.
TEST_F(CloseRaces, StartAndStopUnderFire)
{
    // between a close and the next registration
    mw.tolerate_problem("no callback was ever registered");
    // A picture cannot be given back once the handle is withdrawn; it goes with its device.
    mw.tolerate_problem("was never given back");
    record();
    const auto encoder = [&] {
        mw.fire_encoded_frame({.bytes = {1, 2, 3}, .pts = 5, .input_index = 3});
        mw.fire_event(middleware::Kind::multiplexer, 1);
    };
    under_fire({[&] { mw.fire_picture({.luma = at}); }, encoder}, [&] {
        for (int round = 0; round < 500; round++) {
            ASSERT_EQ(steps::close(0), 1u) << round;
            ASSERT_TRUE(steps::record(0)) << round;
            mw.take_calls();
            mw.take_logs();
        }
    });
}

} // namespace
