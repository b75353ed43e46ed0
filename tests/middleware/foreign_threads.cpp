#include "middleware/state.h"

namespace middleware {

namespace {

/** While it lives, calls on handles that died are not the library's fault, for the device called in after its
 * end. */
class LateCallback {
public:
    explicit LateCallback(bool late) : late_(late) { late_callback_depth += late_; }
    ~LateCallback() { late_callback_depth -= late_; }
    LateCallback(const LateCallback&) = delete;

private:
    const bool late_;
};

/** The device that a callback is for, as it is now; nullopt and a failure where there never was one. */
struct Target {
    u32 handle = 0;
    bool late = false;
    ZU_CAP_Callback capture = nullptr;
    ZU_VENC_Callback encoder = nullptr;
    ZU_ACAP_Callback audio = nullptr;
    ZU_TSMUX_Callback multiplexer = nullptr;
    void* user_data = nullptr;
};

Target target_of(Kind kind, u32 handle)
{
    const State& s = state();
    const auto last = s.last_of_kind.find(kind);
    if (handle == 0 && last != s.last_of_kind.end())
        handle = last->second;
    const auto found = s.devices.find(handle);
    if (found == s.devices.end())
        return {};
    const Device& device = found->second;
    const bool registered = device.alive && (kind == Kind::encoder || device.registration != 0);
    return {handle,
            !registered,
            device.capture_callback,
            device.encoder_callback,
            device.audio_callback,
            device.multiplexer_callback,
            device.user_data};
}

u32 nobody(const char* what)
{
    const Lock lock(state().mutex);
    problem(std::string("nobody ever registered for ") + what);
    return 0;
}

u32 call_encoder(const Target& target, u32 event, ZU_VENC_FrameInfo_t* record)
{
    const LateCallback late(target.late);
    return target.encoder(static_cast<s32>(target.handle), event, record, target.user_data);
}

} // namespace

u32 Middleware::fire_picture(const middleware::Picture& picture)
{
    Lock lock(state().mutex);
    const Target target = target_of(Kind::capture, picture.handle);
    if (!target.capture) {
        lock.unlock();
        return nobody("pictures");
    }
    Device& device = state().devices.at(target.handle);
    if (!target.late)
        device.pictures[picture.buffer]++;
    device.pictures_on_their_way++;
    lock.unlock();
    ZU_CAP_FrameInfo_t frame = {picture.buffer, 0, picture.luma, picture.chroma, 0};
    const LateCallback late(target.late);
    const u32 answer =
        target.capture(static_cast<s32>(target.handle), picture.event, &frame, target.user_data);
    lock.lock();
    device.pictures_on_their_way--;
    return answer;
}

u32 Middleware::fire_encoded_frame(const EncodedFrame& frame)
{
    Lock lock(state().mutex);
    const Target target = target_of(Kind::encoder, frame.handle);
    lock.unlock();
    if (!target.encoder)
        return nobody("encoded frames");
    if (frame.null_record)
        return call_encoder(target, frame.event, nullptr);
    // A block of its own of exactly this size, gone when the callback returns: who keeps or overruns it is
    // found.
    const auto bytes = std::make_unique<u8[]>(frame.bytes.size());
    std::copy(frame.bytes.begin(), frame.bytes.end(), bytes.get());
    ZU_VENC_FrameInfo_t record = {};
    record.pu8Data = frame.bytes.empty() ? nullptr : bytes.get();
    record.u32DataSize = frame.size.value_or(static_cast<u32>(frame.bytes.size()));
    record.u8FrameType = frame.type;
    record.u64Pts = frame.pts;
    record.u32InBufIndex = frame.input_index;
    return call_encoder(target, frame.event, &record);
}

u32 Middleware::fire_tsmux_event(u32 event, u32 handle)
{
    Lock lock(state().mutex);
    const Target target = target_of(Kind::multiplexer, handle);
    lock.unlock();
    if (!target.multiplexer)
        return nobody("multiplexer events");
    const LateCallback late(target.late);
    return target.multiplexer(static_cast<s32>(target.handle), event, nullptr, target.user_data);
}

u32 Middleware::fire_acap_event(u32 event, u32 handle)
{
    Lock lock(state().mutex);
    const Target target = target_of(Kind::audio, handle);
    lock.unlock();
    if (!target.audio)
        return nobody("audio capture events");
    const LateCallback late(target.late);
    return target.audio(static_cast<s32>(target.handle), event, nullptr, target.user_data);
}

std::future<u32> Middleware::fire_on_thread(std::function<u32()> work, bool lets_time_pass)
{
    auto started = std::make_shared<std::promise<void>>();
    std::future<void> registered = started->get_future();
    std::future<u32> result = std::async(std::launch::async, [=, work = std::move(work)] {
        task_thread = !lets_time_pass;
        const std::thread::id self = std::this_thread::get_id();
        {
            const Lock lock(state().mutex);
            state().callback_threads.insert(self);
        }
        started->set_value();
        const u32 value = work();
        const Lock lock(state().mutex);
        state().callback_threads.erase(self);
        let_time_pass();
        return value;
    });
    registered.wait(); // from here on the clock knows of the thread
    return result;
}

} // namespace middleware
