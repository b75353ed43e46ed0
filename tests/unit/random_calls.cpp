#include "random_calls.h"

#include <algorithm>
#include <future>

#include <core/control_lock.h>
#include <srglworker/SrGlWorker.h>

#include "library_test.h"
#include "middleware/state.h"

namespace {

using middleware::Bytes;
using middleware::Middleware;

constexpr u64 PICTURE = 0x500000; /**< physical address of the picture that the capture reports */
constexpr u32 PICTURE_SIZE = 640 * 512 * 3 / 2;
constexpr u32 VCAP = E_SCREENRECORD_MODULE_VCAP, ACAP = E_SCREENRECORD_MODULE_ACAP,
              VENC = E_SCREENRECORD_MODULE_VENC, TSMUX = E_SCREENRECORD_MODULE_TSMUX;

/** Hands out the bytes that decide everything; zeros once they are used up. */
class Dice {
public:
    explicit Dice(const std::vector<u8>& bytes) : bytes_(bytes) {}
    u8 roll(u32 sides) { return static_cast<u8>(next_ < bytes_.size() ? bytes_[next_++] % sides : 0); }
    bool used_up() const { return next_ >= bytes_.size(); }

private:
    const std::vector<u8>& bytes_;
    size_t next_ = 0;
};

u32* slot_of(Choice& choice)
{
    return &choice.slot;
}

u32 set_video(const Choice& c)
{
    const char* source = c.flaw == 4 ? "missing.nv12" : c.variant % 2 ? "a.nv12" : "cap";
    static const char* const codecs[] = {nullptr, "", "auto", "default", "h264"};
    const u32 width = c.flaw == 3 ? 4000 : c.variant % 3 * 160;
    return steps::set_video(c.slot, c.flaw == 1 ? nullptr : source,
                            c.flaw == 2 ? "h265" : codecs[c.variant % 5], width, c.variant % 4 * 120);
}

u32 set_audio(const Choice& c)
{
    const int kind = c.variant % 4;
    const char* source = c.flaw == 3 ? "missing" : kind == 1 || c.flaw == 4 ? "a.nv12" : "cap";
    const char* codec = c.flaw == 2 ? "ac3" : (kind == 3 && c.flaw != 3) || c.flaw == 4 ? "mp3" : "aac";
    return steps::set_audio(c.slot, c.flaw == 1 ? nullptr : source, codec);
}

s32 one_call(const Choice& c)
{
    const u32 width = c.flaw == 3 ? 4000 : c.variant % 3 * 160;
    return startScreenRecord(width, 0, 0, c.variant % 2, 188, c.variant % 5, c.flaw == 2 ? 7 : 0,
                             c.flaw == 1 ? nullptr : steps::text("one.ts"));
}

s32 encode_open(const Choice& c)
{
    CapEnc_OpenParams params = {
        c.variant % 2 ? 320u : 640u, c.variant % 2 ? 240u : 480u, 30, 1000000, 1, 2, 0};
    if (c.flaw != 0)
        params.width = params.height = c.flaw == 1 ? 60000 : 4000;
    return video_capenc_open(&params);
}

s32 stills_open(const Choice& c)
{
    Cap_OpenParams params = {64, 64, c.variant % 4u, 0, 1 + c.variant % 3};
    if (c.flaw == 1)
        params.buffer_number = 0;
    if (c.flaw == 2)
        params.colorfmt = 9;
    if (c.flaw == 3)
        params.width = params.height = 60000;
    return video_cap_open(&params);
}

s32 stills_describe(const Choice& c)
{
    Cap_Buffer buffers[3] = {};
    return video_cap_getCaptureBuffers(buffers, c.flaw ? 99 : StateModel::of_library().buffers);
}

s32 stills_capture(const Choice& c)
{
    return video_cap_captureScreen(c.flaw ? static_cast<s32>(StateModel::of_library().buffers) : 0);
}

s32 sound_read(const Choice&)
{
    u8 sound[64];
    u64 size = 0;
    return audio_cap_getPCM(sound, sizeof(sound), &size);
}

/** Takes a frame. Each that the encoder delivered consists of one value, so a mixture is seen. */
bool take_frame(const Choice& c)
{
    Bytes buffer(c.flaw ? 50 : 4096, 0xEE);
    const u64 offered = buffer.size() - 16;
    CapEnc_EsInfo info = {};
    const bool taken = video_capenc_getES(buffer.data(), offered, &info) == 0;
    const u64 size = taken ? info.u64DataSize : 0;
    EXPECT_LE(size, offered);
    for (u64 index = 0; index < buffer.size(); index++)
        if (buffer[index] != (index < size ? static_cast<u8>(size) : 0xEE)) {
            ADD_FAILURE() << "byte " << index << " of a frame of " << size;
            break;
        }
    return true; // a frame that does not fit is lost with an error, as it should
}

/** What is open in the slot that a step is to open something in: it would replace that without a close. */
bool always(const StateModel&, const Choice&)
{
    return true;
}

bool other_slot_captures(const StateModel& m, u32 slot)
{
    return slot < SCREENRECORD_SLOT_COUNT && m.slots[1 - slot].open[VCAP];
}

bool all_is_closed(const StateModel& m)
{
    return m.slots[0].idle() && m.slots[1].idle() && !m.block;
}

bool slot_is_idle(const StateModel& m, const Choice& c)
{
    return c.slot >= SCREENRECORD_SLOT_COUNT || m.slots[c.slot].busy() || m.slots[c.slot].idle();
}

bool may_init(const StateModel& m, const Choice&)
{
    return m.initialised || (all_is_closed(m) && !m.sound_initialised);
}

bool may_set_video(const StateModel& m, const Choice& c)
{
    if (c.slot >= SCREENRECORD_SLOT_COUNT)
        return true;
    const ModelSlot& slot = m.slots[c.slot];
    return !slot.open[VENC] && !slot.open[VCAP] && !slot.open[E_SCREENRECORD_MODULE_VIDEO_SRC_READER] &&
           !other_slot_captures(m, c.slot);
}

/**
 * An operation: the call, the model's answer to it, and when it may be made. Where a step would open a device
 * over one that is open, the interface asks the client for a close first; such calls are not made. The
 * middleware has one capture connection, so two slots do not capture at a time.
 */
struct Operation {
    const char* name;
    u32 flaws; /**< kinds of bad arguments */
    bool (*may)(const StateModel&, const Choice&);
    bool (StateModel::*answer)(const Choice&);
    bool (*call)(Choice&);
};

constexpr Operation OPERATIONS[] = {
    {"Init", 0, may_init, &StateModel::init, [](Choice&) { return SCREENRECORD_Init() == 1; }},
    {"DeInit", 0, [](const StateModel& m, const Choice&) { return m.initialised || !m.slots[0].open[ACAP]; },
     &StateModel::deinit, [](Choice&) { return SCREENRECORD_DeInit() == 1; }},
    {"Open", 2, slot_is_idle, &StateModel::open,
     [](Choice& c) {
         return steps::open(c.slot, c.flaw == 1 ? nullptr : c.flaw == 2 ? "wifi" : "out.ts") == 1;
     }},
    {"SetVideo", 4, may_set_video, &StateModel::set_video, [](Choice& c) { return set_video(c) == 1; }},
    {"SetAudio", 4,
     [](const StateModel& m, const Choice& c) {
         return c.slot >= SCREENRECORD_SLOT_COUNT ||
                !m.slots[c.slot].open[E_SCREENRECORD_MODULE_AUDIO_SRC_READER];
     },
     &StateModel::set_audio, [](Choice& c) { return set_audio(c) == 1; }},
    {"SetTsMux", 0,
     [](const StateModel& m, const Choice& c) {
         return c.slot >= SCREENRECORD_SLOT_COUNT || !m.slots[c.slot].open[TSMUX];
     },
     &StateModel::set_mux, [](Choice& c) { return steps::set_mux(c.slot, 188, c.variant % 3) == 1; }},
    {"Start", 0, always, &StateModel::start, [](Choice& c) { return SCREENRECORD_Start(slot_of(c)) == 1; }},
    {"Stop", 0, always, &StateModel::stop, [](Choice& c) { return SCREENRECORD_Stop(slot_of(c)) == 1; }},
    {"Close", 0, always, &StateModel::close, [](Choice& c) { return SCREENRECORD_Close(slot_of(c)) == 1; }},
    {"startScreenRecord", 3,
     [](const StateModel& m, const Choice& c) {
         return may_init(m, c) && slot_is_idle(m, {0}) && !m.slots[1].open[VCAP];
     },
     &StateModel::one_call, [](Choice& c) { return one_call(c) == 0; }},
    {"stopScreenRecord", 0, always, &StateModel::one_call_stop,
     [](Choice&) { return stopScreenRecord() == 0; }},
    {"capenc_open", 2,
     [](const StateModel& m, const Choice&) { return !m.slots[0].open[TSMUX] && !m.slots[1].open[VCAP]; },
     &StateModel::encode_open, [](Choice& c) { return encode_open(c) == 0; }},
    {"capenc_start", 0, always, &StateModel::encode_start,
     [](Choice&) { return video_capenc_start(0) == 0; }},
    {"capenc_stop", 0, always, &StateModel::encode_stop, [](Choice&) { return video_capenc_stop() == 0; }},
    {"capenc_close", 0, always, &StateModel::encode_close, [](Choice&) { return video_capenc_close() == 0; }},
    {"capenc_pause", 0, always, &StateModel::succeeds, [](Choice&) { return video_capenc_pause() == 0; }},
    {"capenc_resume", 0, always, &StateModel::succeeds, [](Choice&) { return video_capenc_resume() == 0; }},
    {"capenc_setBitRate", 0, always, &StateModel::set_bit_rate,
     [](Choice&) { return video_capenc_setBitRate(2000000) == 0; }},
    {"capenc_setWatermark", 0,
     [](const StateModel& m, const Choice&) {
         return m.slots[0].open[VENC] && m.inject && (m.watermark || !m.descriptor);
     },
     &StateModel::set_watermark,
     [](Choice&) { return video_capenc_setWatermark(android::WatermarkParams()) == 0; }},
    {"capenc_getES", 1, always, &StateModel::succeeds, [](Choice& c) { return take_frame(c); }},
    {"capenc_requestKeyFrame", 0, always, &StateModel::succeeds,
     [](Choice&) { return video_capenc_requestKeyFrame() == 0 && video_capenc_getMaxEsSize() == 2097152; }},
    {"cap_open", 3, [](const StateModel& m, const Choice&) { return !m.block && !m.slots[1].open[VCAP]; },
     &StateModel::stills_open, [](Choice& c) { return stills_open(c) == 0; }},
    {"cap_getCaptureBuffers", 1, always, &StateModel::stills_describe,
     [](Choice& c) { return stills_describe(c) == 0; }},
    {"cap_captureScreen", 1, always, &StateModel::stills_capture,
     [](Choice& c) { return stills_capture(c) == 0; }},
    {"cap_close", 0, always, &StateModel::stills_close, [](Choice&) { return video_cap_close() == 0; }},
    {"audio_cap_open", 0, always, &StateModel::sound_open, [](Choice&) { return audio_cap_open() == 0; }},
    {"audio_cap_start", 0, always, &StateModel::sound_start, [](Choice&) { return audio_cap_start() == 0; }},
    {"audio_cap_stop", 0, always, &StateModel::sound_stop, [](Choice&) { return audio_cap_stop() == 0; }},
    {"audio_cap_close", 0, always, &StateModel::sound_close, [](Choice&) { return audio_cap_close() == 0; }},
    {"audio_cap_getPCM", 0, always, &StateModel::sound_read, [](Choice& c) { return sound_read(c) == 0; }},
    {"audio_cap_getInfo", 0, always, &StateModel::succeeds,
     [](Choice&) {
         AudioCap_Info info = {};
         return audio_cap_getInfo(&info) == 0 && info.u32Channels == 2 && audio_cap_getLostSize() == 0;
     }},
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
        mw_.map_physical(PICTURE, picture(), PICTURE_SIZE);
        mw_.offer_inject_buffer(320 * 256 * 3 / 2);
        // What a call that fails leaves by its nature, and pictures that come with no encoder behind them.
        for (const char* tolerated :
             {"ZU_TSMUX_SetAttr is called on unknown handle 0x0", "nobody ever registered",
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
        close_everything();
        for (const std::string& sentence : mw_.ledger_problems())
            problem_ += sentence + "\n";
        return problem_.empty() ? "" : problem_ + history_;
    }

private:
    static u8* picture()
    {
        static std::vector<u8> memory(PICTURE_SIZE);
        return memory.data();
    }

    static void close_everything()
    {
        for (int turn = 0; turn < 2; turn++) { // a clean-up call that failed may have left its module
            video_capenc_stop();
            video_capenc_close();
            video_cap_close();
            audio_cap_close();
            SCREENRECORD_DeInit();
        }
    }

    void step()
    {
        Choice choice;
        const Operation& operation = choose(choice);
        const u8 fault = dice_.roll(16);
        StateModel next = model_;
        const bool answer = (next.*operation.answer)(choice);
        counts_.calls++;
        counts_.refused += !answer;
        counts_.recording += model_.slots[0].running[TSMUX] || model_.slots[1].running[TSMUX];
        history_ += std::string(operation.name) + " slot " + std::to_string(choice.slot) + " variant " +
                    std::to_string(choice.variant) + " flaw " + std::to_string(choice.flaw) + " fault " +
                    std::to_string(fault) + "\n";

        const u32 limit = _u32RecordTime;
        mw_.take_logs();
        const bool faulted = call(operation, choice, fault, answer);
        if (dice_.roll(4) == 0)
            let_something_happen();
        finish_limit_closes();
        note_limit_closes(next, limit, faulted);
        const StateModel actual = StateModel::of_library();
        if (!faulted && !(next == actual))
            problem_ += "after " + std::string(operation.name) + "\n is " + actual.text() + "\n not " +
                        next.text() + "\n";
        model_ = actual;
        note_starts();
        compare_with_ledger();
    }

    /** Prefers what the state allows, and what changes it but ends nothing: a sequence of refusals says
     * little. */
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
            const bool succeeds = (trial.*operation.answer)(choice);
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
            mw_.fail_call_number(1 + dice_.roll(4) * dice_.roll(8));
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
        for (std::future<u32>& callback : callbacks)
            callback.get();
        if (!faulted && result != answer)
            problem_ += middleware::joined(mw_.take_logs()) + std::string(operation.name) +
                        (result ? " succeeded\n" : " failed\n");
        return faulted;
    }

    u32 fire(u8 kind, u32 size)
    {
        counts_.callbacks++;
        if (kind == 0)
            return mw_.fire_picture({.luma = size % 7 ? PICTURE : 0x100, .chroma = PICTURE + 640 * 512});
        if (kind == 1)
            return mw_.fire_tsmux_event(size % 4);
        if (kind == 2)
            return mw_.fire_acap_event(1);
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

    /** A writer that closes its slot needs time to pass; the next call would only wait for its lock. */
    void finish_limit_closes()
    {
        mw_.settle();
        while (!_controlMutex.try_lock())
            mw_.advance(1);
        _controlMutex.unlock();
    }

    /** Whatever is open is in the library's table, at any moment: what is not there will never be closed. */
    void compare_with_ledger()
    {
        size_t devices = 0, files = 0, tasks = 0, mutexes = 0;
        for (const SCREENRECORD_SlotCtrl_s& slot : _astSlotCtrl)
            for (const SCREENRECORD_TaskCtrl_s& task : slot.astTaskCtrl) {
                devices += task.u32SrcFile == 0 && task.u32Handle != 0;
                files += (task.u32SrcFile != 0) + (task.u32OutFile != 0);
                tasks += task.s32TaskId != SCREENRECORD_NO_ID;
                mutexes += task.s32MutexId != SCREENRECORD_NO_ID;
            }
        const middleware::State& ledger = middleware::state();
        const middleware::Lock lock(ledger.mutex);
        const auto alive =
            static_cast<size_t>(std::count_if(ledger.devices.begin(), ledger.devices.end(),
                                              [](const auto& device) { return device.second.alive; }));
        // A writer that closed its slot is reclaimed, with its mutex, by the slot's next control call.
        const size_t retired = std::min(ledger.tasks.size() - tasks, limit_closes_);
        const std::array held = {devices, files, tasks + retired, mutexes + retired, size_t{model_.block}};
        const std::array open = {alive, ledger.open_files.size(), ledger.tasks.size(), ledger.mutexes.size(),
                                 ledger.blocks.size()};
        if (held != open)
            problem_ += "the table does not hold what is open: devices, files, tasks, mutexes, blocks " +
                        testing::PrintToString(held) + " " + testing::PrintToString(open) + "\n";
    }

    /** The writer closes its slot when more whole seconds than the limit have passed; never earlier. */
    void note_limit_closes(StateModel& next, u32 limit_before, bool faulted)
    {
        const u32 limit_now = _u32RecordTime, limit = limit_now ? limit_now : limit_before;
        for (u32 index = 0; index < SCREENRECORD_SLOT_COUNT; index++) {
            const ModelSlot actual = StateModel::of_library().slots[index];
            if (!next.slots[index].running[TSMUX] || !actual.idle())
                continue;
            if (!faulted && (limit == 0 ||
                             mw_.now_ms() - timer_from_[index] < 1000 * (s64{limit_least(limit_before)} + 1)))
                problem_ += "slot " + std::to_string(index) + " closed itself early\n";
            next.close_slot(next.slots[index]);
            limit_closes_++;
        }
    }

    static u32 limit_least(u32 before)
    {
        const u32 now = _u32RecordTime;
        return before == 0 ? now : now == 0 ? before : std::min(now, before);
    }

    void note_starts()
    {
        for (u32 index = 0; index < SCREENRECORD_SLOT_COUNT; index++)
            if (!model_.slots[index].running[TSMUX])
                timer_from_[index] = mw_.now_ms();
    }

    Middleware& mw_ = Middleware::instance();
    Dice dice_;
    RandomCallCounts& counts_;
    StateModel model_ = StateModel::of_library();
    size_t limit_closes_ = 0;
    s64 timer_from_[SCREENRECORD_SLOT_COUNT] = {};
    std::string problem_, history_;
};

} // namespace

std::string run_random_calls(const std::vector<u8>& bytes, int most, RandomCallCounts& counts)
{
    return Sequence(bytes, counts).run(most);
}
