#pragma once

#include "encoder/encoder_settings.h"
#include "encoder/input_memory.h"
#include "encoder/x264_encoder.h"
#include "picture/picture_in_flight.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <zu3/venc.h>

namespace zu3host {

/**
 * An open encoder: accepts pictures on any thread, encodes them on its own and calls back there
 * with the frames; a captured picture that repeats the last one, on the capture's thread. It never
 * blocks on its producer; a producer blocks briefly when the queue is full, since a refusal costs a
 * capture several pictures, and is refused then. Any thread may make every call, also within the
 * callback, except close(). Results are ZU_* codes.
 */
class Encoder final : public AfterCallback, public std::enable_shared_from_this<Encoder> {
public:
    /** Opens x264 and starts the thread; null when either fails, which is logged. */
    static std::shared_ptr<Encoder> open(const ZU_VENC_OpenParams_t& params);
    /** Closes. */
    ~Encoder();

    /**
     * Encodes from now on, pictures accepted before the first start included; begins with a key
     * frame. The callback gets `handle`.
     */
    uint32_t start(uint32_t handle);
    /**
     * Accepts no more pictures, encodes those in the queue for up to 150 ms, and drops the rest. No
     * callback begins after it returned; one may still be running.
     */
    void stop();
    /**
     * Stops, joins the thread, and waits for a callback that is running. ZU_FAILURE within a
     * callback with a frame.
     */
    uint32_t close();

    /** Lends an input buffer; waits up to 80 ms for one. @return ZU_BUSY if none became free */
    uint32_t lend(ZU_VENC_InputBuffer_t& buffer);
    /**
     * Accepts a filled picture: the lent buffer, or one in the inject region, which is leased until
     * it is encoded. Waits up to 80 ms for a place in the queue. Within a capture's callback the
     * picture's time is when that picture was due, otherwise the buffer's time stamp.
     * @return ZU_INVALID_ARGUMENT for any other address or too few bytes, ZU_FAILURE when stopped,
     * ZU_BUSY if the queue stays full; the picture is then not encoded, and counted as refused
     */
    uint32_t accept(const ZU_VENC_InputBuffer_t& buffer);
    /**
     * Describes the inject region, allocated at the first call; address 0 if none is offered.
     */
    uint32_t offer_inject_region(ZU_VENC_EntireInjectBuf_t& region);
    /** From the next picture on; `bitrate` in units of 1024 bit/s, not 0. */
    uint32_t set_bitrate(uint32_t bitrate);
    /** Encodes the picture that was left to this thread. */
    void after_callback() override;

private:
    struct Picture {
        uint8_t* data;
        // of the frame's record
        uint64_t pts;
        // PictureInFlight::time_us of its frame
        uint64_t time;
        uint32_t index;
        bool as_key;
        bool injected;
        LentBuffers::Contents contents;
    };
    /** A first-in first-out row of pictures in place. */
    class Queue {
    public:
        static constexpr size_t capacity = LentBuffers::count;
        bool empty() const { return used_ == 0; }
        bool full() const { return used_ == capacity; }
        size_t size() const { return used_; }
        const Picture& front() const { return pictures_[first_]; }
        void push(const Picture& picture) { pictures_[(first_ + used_++) % capacity] = picture; }
        Picture pop();

    private:
        std::array<Picture, capacity> pictures_{};
        size_t first_ = 0;
        size_t used_ = 0;
    };
    /** A picture to be encoded, with all that applies to it. */
    struct Work {
        Picture picture;
        std::optional<EncoderRate> rate;
        uint32_t session;
        uint32_t handle;
    };
    enum class State { opened, running, draining, stopped, closed };

    Encoder(const ZU_VENC_OpenParams_t& params, const EncoderSettings& settings,
            std::unique_ptr<X264Encoder> x264);

    uint32_t admit(std::unique_lock<std::mutex>& lock, const ZU_VENC_InputBuffer_t& buffer);
    /**
     * x264's first pictures take several times as long as later ones, since it touches its memory
     * for the first time. Until then pictures are accepted one by one, so that none waits in memory
     * that later is not needed. Waits up to 250 ms.
     */
    void wait_until_warm(std::unique_lock<std::mutex>& lock);
    /**
     * Waits, bounded, for room; no longer than pictures are accepted, and not on the thread that
     * makes room.
     */
    template <typename HasRoom>
    void wait_for_room(std::unique_lock<std::mutex>& lock, HasRoom has_room);
    bool busy() const { return busy_ != std::thread::id(); }
    bool in_callback() const { return busy_ == std::this_thread::get_id(); }
    bool accepting() const { return state_ == State::opened || state_ == State::running; }
    bool address_is_known(const ZU_VENC_InputBuffer_t& buffer);
    void give_back(const Picture& picture);
    void drop_queue();

    bool leave_to_capture();
    bool has_work() const;
    /** Marks the encoder as busy until finish(). */
    Work take_work();
    void finish();
    void run();
    std::optional<Work> next_work();
    void perform(const Work& work);
    ChangedRectangles changed_in(const Picture& picture) const;
    std::optional<AccessUnit> encode(const Work& work);
    void deliver(const Work& work, const AccessUnit& unit);
    bool may_deliver(uint32_t session);

    const ZU_VENC_Callback callback_;
    void* const user_data_;
    const EncoderSettings settings_;
    // used by the thread that made the encoder busy, or else under the mutex
    const std::unique_ptr<X264Encoder> x264_;
    // of the picture that x264 has encoded last; used like x264_
    uint64_t encoded_serial_ = 0;

    // guards all below; a leaf but for the picture leases, the due times and the block table
    std::mutex mutex_;
    // for those that wait for the encoder
    std::condition_variable changed_;
    // for its thread
    std::condition_variable work_;
    State state_ = State::opened;
    uint32_t handle_ = 0;
    // counts starts, so that a frame of an earlier start is not delivered in a later one
    uint32_t session_ = 0;
    // the thread that is between a picture and the end of its callback
    std::thread::id busy_;
    // the first picture in the queue is the capture's thread to encode
    bool left_to_capture_ = false;
    // still to be encoded until it is warm
    uint32_t cold_pictures_ = 4;
    bool key_due_ = true;
    bool warned_of_address_ = false;
    bool warned_of_x264_ = false;
    std::optional<EncoderRate> new_rate_;
    LentBuffers lent_;
    InjectRegion region_;
    Queue queue_;

    std::optional<OpenEncoderSize> size_while_open_;
    // held while joining
    std::mutex close_mutex_;
    std::thread thread_;
};

/**
 * Makes zu3_host_frame_event() readable: the encoder's callback has accepted a frame. Does nothing
 * before the first call of zu3_host_frame_event(). From any thread.
 */
void signal_frame();

} // namespace zu3host
