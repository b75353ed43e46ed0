#pragma once

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
 * The first output of a Wayland session, as the compositor copies it: upright, at its real pixels.
 * Follows when the output's size changes. When the compositor or the output goes away it says so
 * once in the log and in the statistics, and has no pictures from then on.
 *
 * A copy is asked for once per picture. The compositor answers when the output differs from the
 * last copy, so a still output costs nothing: the request stays with the compositor, and grabs
 * return the last image. Twice a second the compositor must answer, so that a hung one is noticed.
 */
class WaylandSource : public WaitingSource {
public:
    /** Waits without a limit. Throws std::bad_alloc. */
    static ScreenOpening open(const ScreenHost& host);

    std::optional<BgraImage> grab(const GrabRequest& request) override;
    void cut() override { session_->connection().cut(); }

private:
    using Clock = WaylandConnection::Clock;

    WaylandSource(const ScreenHost& host, std::unique_ptr<WaylandSession> session);

    std::optional<BgraImage> try_grab(bool pointer);
    /** Brings the image up to date; false if it cannot be. */
    bool update(bool pointer);
    void note_pace();
    void start_frame(bool pointer);
    /** Waits until the layout is known and makes a buffer of it; false with the refusal. */
    bool prepare_frame(bool pointer);
    bool ask_for_copy(bool pointer);
    void take_copy();
    void wait_for_life();
    bool is_in(FrameCopy::State state) const { return frame_ && frame_->state() == state; }
    const WaylandOutput* output() const { return session_->output(output_id_); }
    bool gone() const { return session_->connection().lost() || !output(); }
    /** Whether grabs come about as often as frames of the output. */
    bool is_fast() const { return pace_ * 2 < refresh_ * 3; }
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
    // why there was no copy
    WaylandProblem refusal_;
    bool told_of_loss_ = false;
    bool told_of_refusal_ = false;
};

} // namespace zu3host
