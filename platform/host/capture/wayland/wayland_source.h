#pragma once

#include "capture/change_pace.h"
#include "capture/wayland/copy_buffer.h"
#include "capture/wayland/frame_copy.h"
#include "capture/wayland/upright_image.h"
#include "capture/wayland/wayland_session.h"

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace zu3host {

/**
 * An output of a Wayland session, copied by the compositor: upright, in physical pixels.
 * Follows changes of the output's size. When the compositor or the output goes away, one log line
 * and the statistics say so, and grabs return no more pictures.
 *
 * Each picture needs one copy. The compositor answers when the output differs from the last copy.
 * So a still output costs nothing: the request stays with the compositor, and grabs return the last
 * image when it is due. A changed image is returned at once if no newer copy can arrive before it
 * is due. Twice a second another request checks that the compositor still answers.
 *
 * On an output that changes with each frame, the request for a picture is sent half a frame before
 * it is due: the copy then shows the output within half a frame of that time, and earlier ones would
 * be replaced. Otherwise, and with every 32nd picture to see which of the two applies, it is sent
 * at once, so that the copy arrives with the change.
 */
class WaylandSource : public WaitingSource {
public:
    /** As ScreenModule::open(). */
    static ScreenOpening open(const ScreenHost& host, const std::string& monitor);

    std::optional<BgraImage> grab(const GrabRequest& request) override;
    bool awaits_changes() const override { return true; }
    void cut() override { session_->connection().cut(); }

private:
    using Clock = WaylandConnection::Clock;

    WaylandSource(const ScreenHost& host, std::unique_ptr<WaylandSession> session,
                  const WaylandOutput& output);

    std::optional<BgraImage> try_grab(const GrabRequest& request);
    /** Updates the image, at the latest when it is due; false if that fails. */
    bool update(const GrabRequest& request);
    /** How long a picture that is due at `due` waits for a change. */
    Clock::time_point latest_answer(Clock::time_point due) const;
    /** When the copy for a picture that is due at `due` is asked for. */
    Clock::time_point next_question(Clock::time_point due) const;
    /** Whether the image has changed since the last grab. */
    bool has_news() const { return image_.serial && image_.serial != returned_; }
    void note_pace();
    void start_frame(bool pointer);
    /** Waits for the layout and allocates its buffer; on failure false, and `refusal_` is set. */
    bool prepare_frame(bool pointer);
    bool ask_for_copy(bool pointer);
    void take_copy();
    void wait_for_life();
    bool is_in(FrameCopy::State state) const { return frame_ && frame_->state() == state; }
    const WaylandOutput* output() const { return session_->output(output_id_); }
    bool gone() const { return session_->connection().lost() || !output(); }
    /** Whether grabs are about as frequent as frames of the output. */
    bool is_fast() const { return pace_ * 2 < refresh_ * 3; }
    /** Whether the output changes with each frame; every 32nd copy asks for it again. */
    bool moves() const { return prompt_copies_ % 32 != 0; }
    /** Whether the output has not changed for some time. */
    bool is_still() const { return Clock::now() - copied_ > std::chrono::milliseconds(100); }
    void note_loss();
    void note_refusal();

    const ScreenHost& host_;
    const std::unique_ptr<WaylandSession> session_;
    const uint32_t output_id_;
    const std::string output_name_;
    const Clock::duration refresh_;

    // The compositor writes into one while the image is in the other.
    std::unique_ptr<CopyBuffer> shown_;
    std::unique_ptr<CopyBuffer> next_;
    std::unique_ptr<FrameCopy> frame_;
    UprightImage upright_;
    Orientation orientation_{};
    // serial 0 = none yet
    BgraImage image_{};
    bool image_has_pointer_ = false;
    std::vector<PictureRectangle> parts_;
    // of the image that the last grab returned
    uint64_t returned_ = 0;

    std::array<Clock::time_point, 8> grab_times_{};
    size_t grabs_ = 0;
    // between grabs
    Clock::duration pace_ = std::chrono::seconds(1);
    Clock::time_point asked_for_answer_{};
    Clock::time_point asked_{};
    // when the last copy was there
    Clock::time_point copied_{};
    ChangePace changes_;
    // copies in a row that came with the next frame after the request
    uint32_t prompt_copies_ = 0;
    // why there was no copy
    WaylandProblem refusal_;
    bool told_of_loss_ = false;
    bool told_of_refusal_ = false;
};

} // namespace zu3host
