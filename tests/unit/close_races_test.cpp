/** The middleware's threads against a close: once it has returned, nothing late touches anything. */
#include "library_test.h"

namespace {

using CloseRaces = LibraryTest;

/** What a late callback could change. */
struct Traces {
    size_t pushed, inputs, given_back;
    u32 input_index, last_index;
    u64 first_pts;
    bool operator==(const Traces&) const = default;
};

TEST_F(CloseRaces, CallbacksAfterACloseWriteNothing)
{
    u8 picture[16] = {};
    mw.map_physical(0x5000, picture, sizeof(picture));
    ASSERT_TRUE(steps::record(0));
    mw.settings.encoder_input_size = sizeof(picture);
    mw.fire_picture({.luma = 0x5000});
    mw.fire_encoded_frame({.bytes = {1}, .pts = 5});
    ASSERT_EQ(steps::close(0), 1u);
    const auto traces = [&] {
        const SCREENRECORD_TaskCtrl_s& venc = task(0, E_SCREENRECORD_MODULE_VENC);
        return Traces{
            mw.pushed().size(), mw.encoder_inputs().size(), size_t(mw.count("ZU_CAP_ProcessBufDone")),
            venc.u32InBufIndex, venc.u32LastInBufIndex,     venc.u64FirstPts};
    };
    const Traces before = traces();
    EXPECT_EQ(mw.fire_picture({.luma = 0x5000}), 1u);
    EXPECT_EQ(mw.fire_encoded_frame({.bytes = {1}, .pts = 9, .input_index = 7}), ZU_FAILURE);
    EXPECT_EQ(mw.fire_acap_event(1), ZU_FAILURE);
    mw.fire_tsmux_event(1);
    EXPECT_EQ(traces(), before);
}

TEST_F(CloseRaces, CallbacksInsideEveryStepOfACloseCallNothingDead)
{
    u8 picture[16] = {};
    bool came = true;
    for (int step = 1; came; step++) {
        for (const bool behind : {false, true}) {
            SCOPED_TRACE((behind ? "behind step " : "inside step ") + std::to_string(step));
            mw.map_physical(0x5000, picture, sizeof(picture));
            mw.settings.encoder_input_size = sizeof(picture);
            ASSERT_TRUE(steps::record(0));
            mw.settle();
            came = false;
            std::vector<std::future<u32>> callbacks;
            const auto fire = [&] {
                came = true;
                callbacks.push_back(mw.fire_on_thread([&] { return mw.fire_picture({.luma = 0x5000}); }));
                callbacks.push_back(
                    mw.fire_on_thread([&] { return mw.fire_encoded_frame({.bytes = {1}, .pts = 5}); }));
            };
            behind ? mw.after("*", fire, {.nth = step}) : mw.inside("*", fire, {.nth = step});
            EXPECT_EQ(steps::close(0), 1u);
            mw.clear_script();
            for (std::future<u32>& callback : callbacks)
                callback.get();
            SCREENRECORD_DeInit();
            EXPECT_CALLS(mw.ledger_problems(), {});
            mw.reset();
        }
    }
}

/** A callback that is held up inside the middleware while the slot closes: the close waits for it to leave.
 */
TEST_F(CloseRaces, ACloseWaitsForTheCallbackThatIsInside)
{
    u8 picture[16] = {};
    mw.settings.encoder_input_size = sizeof(picture);
    mw.map_physical(0x5000, picture, sizeof(picture));
    for (const char* inside :
         {"ZU_CAP_ProcessBufDone", "ZU_VENC_WriteBufferComplete", "ZU_TSMUX_PushMediaData"}) {
        SCOPED_TRACE(inside);
        ASSERT_TRUE(steps::record(0));
        middleware::Gate held;
        mw.inside(inside, [&] { held.wait(); });
        std::future<u32> callback = mw.fire_on_thread([&] {
            return std::string_view(inside) == "ZU_TSMUX_PushMediaData"
                       ? mw.fire_encoded_frame({.bytes = {1}, .pts = 5})
                       : mw.fire_picture({.luma = 0x5000});
        });
        ASSERT_TRUE(held.wait_for_arrivals());
        mw.inside("ZU_VENC_Stop", [&] { held.open(); }); // the close has begun by then
        EXPECT_EQ(steps::close(0), 1u);
        callback.get();
        SCREENRECORD_DeInit();
        EXPECT_CALLS(mw.ledger_problems(), {});
    }
}

constexpr int limit_trials = runs_slowly ? 1000 : 10000;

struct ClientCall {
    const char* name;
    std::function<s64()> call;
    s64 answer;
};

/** One recording at its time limit, and a client's call that meets it; `phase` counts middleware calls. */
class TimeLimitTrial {
public:
    TimeLimitTrial(middleware::Middleware& mw, const ClientCall& client, int phase, bool behind, u32 output)
        : mw_(mw), client_(client), phase_(phase), behind_(behind)
    {
        EXPECT_EQ(steps::one_call(1), 0);
        mw_.settle();
        mw_.queue_output(middleware::Bytes(output, 7));
        mw_.set_now_us(mw_.now_us() + 1'950'000); // the next pass but one finds the limit passed
    }

    /** The client comes while the writer is at that phase of its pass and its close. */
    void client_meets_writer()
    {
        std::future<u32> client;
        at_phase([&] {
            client = mw_.fire_on_thread([&] {
                answer_ = client_.call();
                return 0u;
            });
        });
        mw_.advance(300);
        mw_.clear_script();
        if (client.valid())
            client.get();
        else
            answer_ = client_.call();
    }
    /** The limit passes while the client is at that phase of its call. */
    void writer_meets_client()
    {
        at_phase([] { ZU_OS_DelayTask(200); });
        answer_ = client_.call();
    }

    void judge()
    {
        mw_.clear_script();
        mw_.advance(300);
        // An open comes either behind the writer's close or to a slot that still records.
        const auto opened = mw_.count("ZU_FS_Fopen") - 1;
        const bool refused = client_.answer != opened && std::string_view(client_.name) == "open";
        EXPECT_EQ(answer_, refused ? 0 : client_.answer);
        EXPECT_EQ(mw_.count("ZU_FS_Fclose"), 1);
    }

private:
    void at_phase(const std::function<void()>& hook)
    {
        behind_ ? mw_.after("*", hook, {.nth = phase_}) : mw_.inside("*", hook, {.nth = phase_});
    }

    middleware::Middleware& mw_;
    const ClientCall& client_;
    const int phase_;
    const bool behind_;
    std::atomic<s64> answer_ = -100;
};

TEST_F(CloseRaces, TheTimeLimitAgainstAClientAtEveryPhaseInBothOrders)
{
    const ClientCall clients[] = {
        {"stop", [] { return s64{steps::stop(0)}; }, 1},
        {"close", [] { return s64{steps::close(0)}; }, 1},
        {"open", [] { return s64{steps::open(0, "next.ts")}; }, 1},
        {"stopScreenRecord", [] { return s64{stopScreenRecord()}; }, 0},
    };
    const u32 outputs[] = {0, 188, 0x10000, 0x18000}; // nothing, less than a batch, just one, more
    int trials = 0;
    for (int number = 0; number < limit_trials && !HasFailure(); number++) {
        const ClientCall& client = clients[number % 4];
        const bool behind = number / 4 % 2, client_first = number / 8 % 2;
        const int phase = number / 16 % 60 + 1; // a close makes fewer than 60 calls: some come after it
        SCOPED_TRACE(std::string(client.name) + (client_first ? " before" : " after") + " the limit, phase " +
                     std::to_string(phase) + (behind ? " behind" : ""));
        TimeLimitTrial trial(mw, client, phase, behind, outputs[number / 16 / 60 % 4]);
        client_first ? trial.writer_meets_client() : trial.client_meets_writer();
        trial.judge();
        close_all();
        EXPECT_CALLS(mw.ledger_problems(), {});
        mw.reset();
        trials++;
    }
    printf("time limit against a client: %d trials\n", trials);
}

/** All callbacks live while a slot starts and stops; ThreadSanitizer is the judge. */
TEST_F(CloseRaces, StartAndStopUnderFire)
{
    std::vector<u8> picture(640 * 480 * 2);
    mw.map_physical(0x5000, picture.data(), static_cast<u32>(picture.size()));
    mw.run_freely(true);
    mw.tolerate_problem("nobody ever registered"); // between a close and the next registration
    // Once the handle is withdrawn a picture cannot be given back any more; it goes with its device.
    mw.tolerate_problem("was never given back");
    std::atomic<bool> stop{false};
    ASSERT_TRUE(steps::record(0));
    std::future<u32> capture = mw.fire_on_thread([&] {
        while (!stop) {
            mw.fire_picture({.luma = 0x5000});
            ZU_OS_DelayTask(1); // lets the virtual time pass
        }
        return 0u;
    });
    std::future<u32> encoder = mw.fire_on_thread([&] {
        while (!stop) {
            mw.fire_encoded_frame({.bytes = {1, 2, 3}, .pts = 5, .input_index = 3});
            mw.fire_tsmux_event(1);
            ZU_OS_DelayTask(1);
        }
        return 0u;
    });
    for (int round = 0; round < 500; round++) {
        ASSERT_EQ(steps::close(0), 1u) << round;
        ASSERT_TRUE(steps::record(0)) << round;
        mw.take_calls();
        mw.take_logs();
    }
    stop = true;
    capture.get();
    encoder.get();
    mw.run_freely(false);
}

} // namespace
