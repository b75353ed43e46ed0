#include "random_calls.h"

#include "table/control_call.h"

#include "library_test.h"

namespace {

/** physical address of the picture that the capture reports */
constexpr u64 PICTURE = 0x500000;
constexpr u32 PICTURE_SIZE = 640 * 512 * 3 / 2;

/** Hands out the bytes that decide everything; zeros once they are used up. */
class Dice {
public:
    explicit Dice(const std::vector<u8>& bytes) : bytes_(bytes) {}
    u8 roll(u32 sides)
    {
        return static_cast<u8>(next_ < bytes_.size() ? bytes_[next_++] % sides : 0);
    }
    bool used_up() const { return next_ >= bytes_.size(); }

private:
    const std::vector<u8>& bytes_;
    size_t next_ = 0;
};

/** Where callbacks are fired from inside: the calls at which a device begins or ends. */
constexpr const char* MOMENTS[] = {"ZU_CAP_CaptureStop",  "ZU_CAP_Close",   "ZU_VENC_Start",
                                   "ZU_VENC_Stop",        "ZU_VENC_Close",  "ZU_OS_DeleteTask",
                                   "ZU_TSMUX_Stop",       "ZU_TSMUX_Close", "ZU_OS_DeleteMutex",
                                   "ZU_CAP_CaptureStart", "ZU_TSMUX_Start", "ZU_ACAP_Close"};

class Sequence {
public:
    Sequence(const std::vector<u8>& bytes, RandomCallCounts& counts) : dice_(bytes), counts_(counts)
    {
        mw_.reset();
        _bSysInited = 0;
        _u32RecordTime = 0;
        mw_.settings.first_fd = 3;
        mw_.add_file("a.nv12", Bytes(1000));
        mw_.map_physical(PICTURE, picture_.data(), PICTURE_SIZE);
        mw_.offer_inject_buffer(320 * 256 * 3 / 2);
        // Leftovers of failing calls, and pictures that come without an encoder.
        for (const char* tolerated :
             {"no callback was ever registered",
              "ZU_VENC_QueryBuffer is called on unknown handle 0x0",
              "ZU_VENC_WriteBufferComplete is called on unknown handle 0x0"})
            mw_.tolerate_problem(tolerated);
    }

    std::string run(int most)
    {
        if (dice_.roll(4) != 0 && SCREENRECORD_Init() == 1) // most clients begin so
            model_ = StateModel::of_library();
        for (int number = 0; number < most && !dice_.used_up() && problem_.empty(); number++)
            step();
        mw_.clear_script();
        for (int turn = 0; turn < 2; turn++) // a clean-up call that failed may have left its module
            steps::close_all();
        for (const std::string& sentence : mw_.ledger_problems())
            problem_ += sentence + "\n";
        return problem_.empty() ? "" : problem_ + history_;
    }

private:
    void step()
    {
        Choice choice;
        const Operation& operation = choose(choice);
        const u8 fault = dice_.roll(16);
        StateModel next = model_;
        const bool answer = operation.answer(next, choice);
        counts_.calls++;
        counts_.refused += !answer;
        counts_.recording += model_.slots[0].running[TSMUX] || model_.slots[1].running[TSMUX];
        history_ += middleware::text(operation.name, " slot ", choice.slot, " variant ",
                                     choice.variant, " flaw ", choice.flaw, " fault ", fault, "\n");

        const u32 limit_before = limit();
        mw_.take_logs();
        const bool faulted = call(operation, choice, fault, answer);
        if (dice_.roll(4) == 0)
            let_something_happen();
        mw_.settle();
        while (!_controlMutex.try_lock()) // a writer that closes its slot needs time to pass
            mw_.advance(1);
        _controlMutex.unlock();
        note_limit_closes(next, std::min(limit_before, limit()), faulted);
        const StateModel actual = StateModel::of_library();
        if (!faulted && !(next == actual))
            problem_ += "after " + std::string(operation.name) + "\n is " + actual.text() +
                        "\n not " + next.text() + "\n";
        model_ = actual;
        for (u32 index = 0; index < SCREENRECORD_SLOT_COUNT; index++)
            if (!model_.slots[index].running[TSMUX])
                timer_from_[index] = mw_.now_ms();
    }

    /** Prefers calls that the state allows and that end nothing: refusals say little. */
    const Operation& choose(Choice& choice)
    {
        choice.slot = dice_.roll(8) == 0 ? dice_.roll(4) : dice_.roll(2);
        choice.variant = dice_.roll(60);
        const u8 flaw = dice_.roll(64), care = dice_.roll(32);
        const size_t count = std::size(OPERATIONS), first = dice_.roll(count);
        const Operation* permitted = nullptr;
        for (size_t offset = 0; offset < count; offset++) {
            const Operation& operation = OPERATIONS[(first + offset) % count];
            choice.flaw = flaw >= 1 && flaw <= operation.flaws ? flaw : 0;
            StateModel trial = model_;
            const bool succeeds = operation.answer(trial, choice);
            if (!operation.may(model_, choice))
                continue;
            if (care == 0 || choice.flaw != 0 || (succeeds && says_much(trial, care)))
                return operation;
            if (succeeds && permitted == nullptr)
                permitted = &operation;
        }
        choice.flaw = 0;
        return *permitted;
    }

    bool says_much(const StateModel& next, u8 care) const
    {
        if (next.open_modules() < model_.open_modules())
            return care == 1;
        return care < 8 || !(next == model_);
    }

    /** Makes the call, perhaps with a fault or callbacks in it. True when a fault came. */
    bool call(const Operation& operation, Choice& choice, u8 fault, bool answer)
    {
        std::vector<std::future<u32>> callbacks;
        std::optional<middleware::AllocationWindow> window;
        const bool refuses = fault == 1 || fault == 4;
        if (refuses)
            mw_.fail("*", {.nth = 1 + dice_.roll(4) * dice_.roll(8)});
        if (fault == 2)
            window.emplace(1 + dice_.roll(4), dice_.roll(2) == 1);
        if (fault == 3)
            mw_.inside(MOMENTS[dice_.roll(std::size(MOMENTS))], [&, kind = dice_.roll(4)] {
                callbacks.push_back(mw_.fire_on_thread([this, kind] { return fire(kind, 60); }));
            });
        const bool result = operation.call(choice);
        const bool faulted = (refuses && !mw_.script_pending()) || (window && window->failed());
        counts_.faults += faulted;
        mw_.clear_script();
        // joins them
        callbacks.clear();
        if (!faulted && result != answer)
            problem_ += middleware::joined(mw_.take_logs()) + std::string(operation.name) +
                        (result ? " succeeded\n" : " failed\n");
        return faulted;
    }

    u32 fire(u8 kind, u32 size)
    {
        counts_.callbacks++;
        if (kind == 0)
            return mw_.fire_picture(
                {.luma = size % 7 ? PICTURE : 0x100, .chroma = PICTURE + 640 * 512});
        if (kind == 1)
            return mw_.fire_event(middleware::Kind::multiplexer, size % 4);
        if (kind == 2)
            return mw_.fire_event(middleware::Kind::audio, 1);
        return mw_.fire_encoded_frame({.bytes = Bytes(size, static_cast<u8>(size)),
                                       .type = static_cast<u8>(size % 3 ? 1 : 0xFF),
                                       .pts = size,
                                       .input_index = size % 20});
    }

    void let_something_happen()
    {
        const u8 kind = dice_.roll(8);
        if (kind < 6)
            fire(kind % 2 ? 3 : kind / 2, dice_.roll(200));
        if (kind == 6)
            mw_.queue_output(Bytes(1u << dice_.roll(17)));
        if (kind >= 6)
            mw_.advance(100 * (1 + dice_.roll(20)));
    }

    /** In seconds; without one, more than any sequence takes. */
    static u32 limit() { return _u32RecordTime != 0 ? _u32RecordTime.Get() : ~0u; }

    /** The writer closes its slot once more whole seconds than the limit have passed. */
    void note_limit_closes(StateModel& next, u32 least, bool faulted)
    {
        for (u32 index = 0; index < SCREENRECORD_SLOT_COUNT; index++) {
            const ModelSlot actual = StateModel::of_library().slots[index];
            if (!next.slots[index].running[TSMUX] || !actual.idle())
                continue;
            if (!faulted && mw_.now_ms() - timer_from_[index] < 1000 * (s64{least} + 1))
                problem_ += "slot " + std::to_string(index) + " closed itself early\n";
            next.close_slot(next.slots[index]);
        }
    }

    static inline Bytes picture_ = Bytes(PICTURE_SIZE);
    middleware::Middleware& mw_ = middleware::Middleware::instance();
    Dice dice_;
    RandomCallCounts& counts_;
    StateModel model_ = StateModel::of_library();
    s64 timer_from_[SCREENRECORD_SLOT_COUNT] = {};
    std::string problem_, history_;
};

} // namespace

std::string run_random_calls(const std::vector<u8>& bytes, int most, RandomCallCounts& counts)
{
    return Sequence(bytes, counts).run(most);
}
