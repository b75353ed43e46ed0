#include "middleware/contract_call.h"

namespace middleware {

namespace {

/** Calls in for the last device of a kind; once that is dead, dead handles are no fault. */
u32 call_in(Kind kind, u32 event, void* record, std::optional<u32> picture = {})
{
    Lock lock(state().mutex);
    const auto found = state().devices.find(state().last_of_kind[kind]);
    if (found == state().devices.end() || !found->second.callback) {
        problem("no callback was ever registered with a " + facts(kind).name);
        return 0;
    }
    Device& device = found->second;
    const bool late = !device.alive || (kind != Kind::encoder && device.registration == 0);
    if (picture && !late)
        device.pictures[*picture]++;
    device.pictures_on_their_way += picture.has_value();
    const Callback callback = device.callback;
    lock.unlock();
    late_callback_depth += late;
    const u32 answer = callback(event, record);
    late_callback_depth -= late;
    lock.lock();
    device.pictures_on_their_way -= picture.has_value();
    return answer;
}

} // namespace

u32 Middleware::fire_picture(const Picture& picture)
{
    ZU_CAP_FrameInfo_t frame = {picture.buffer, 0, picture.luma, picture.chroma, 0};
    return call_in(Kind::capture, 1, &frame, picture.buffer);
}

u32 Middleware::fire_encoded_frame(const EncodedFrame& frame)
{
    // A block of exactly this size, gone after the callback: a read beyond it or after it is found.
    const auto bytes = std::make_unique<u8[]>(frame.bytes.size());
    std::ranges::copy(frame.bytes, bytes.get());
    ZU_VENC_FrameInfo_t record = {};
    record.pu8Data = frame.bytes.empty() ? nullptr : bytes.get();
    record.u32DataSize = frame.size.value_or(static_cast<u32>(frame.bytes.size()));
    record.u8FrameType = frame.type;
    record.u64Pts = frame.pts;
    record.u32InBufIndex = frame.input_index;
    return call_in(Kind::encoder, frame.event, frame.null_record ? nullptr : &record);
}

u32 Middleware::fire_event(Kind kind, u32 event)
{
    return call_in(kind, event, nullptr);
}

std::future<u32> Middleware::fire_on_thread(std::function<u32()> work, bool lets_time_pass)
{
    std::promise<void> started;
    std::future<void> registered = started.get_future();
    auto run = [=, work = std::move(work), started = std::move(started)]() mutable {
        task_thread = !lets_time_pass;
        const std::thread::id self = std::this_thread::get_id();
        Lock lock(state().mutex);
        state().callback_threads.insert(self);
        lock.unlock();
        started.set_value();
        const u32 value = work();
        lock.lock();
        state().callback_threads.erase(self);
        let_time_pass();
        return value;
    };
    std::future<u32> result = std::async(std::launch::async, std::move(run));
    // from here on the clock knows of the thread
    registered.wait();
    return result;
}

} // namespace middleware
