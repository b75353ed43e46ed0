#pragma once

#include "capture/part_list.h"
#include "capture/patient_source.h"
#include "capture/x11_connection.h"
#include "capture/x11_damage.h"
#include "capture/x11_image.h"
#include "capture/x11_pointer.h"
#include "capture/x11_view.h"

#include <chrono>
#include <common/screen_part.h>
#include <cstdint>
#include <memory>

namespace zu3host {

/**
 * A part of the X11 screen that DISPLAY names, or the whole with all its monitors. Follows changes
 * of its size. Fetches the parts that DAMAGE reports since the last grab. A driver may draw without
 * DAMAGE, so all lines are compared once a second as well. When the server or the part goes away,
 * one log line and the statistics say so, and grabs return no more pictures.
 */
class X11Source : public WaitingSource {
public:
    /**
     * Null, with a log line, if the display cannot be reached, its pixels cannot be read, or it
     * has no such part.
     */
    static std::unique_ptr<X11Source> open(const common::ScreenPart& part);
    ~X11Source() override;

    /** Waits without limit: ignores the request's stop and patience. */
    std::optional<BgraImage> grab(const GrabRequest& request) override;
    /**
     * After some pictures without a change, the requests for the next picture are sent ahead, so
     * that the answers have arrived when it is due. The start of a pointer's movement is then seen
     * one picture later.
     */
    std::optional<BgraImage> glance(const GrabRequest& request) override;
    void cut() override { connection_->cut(); }

private:
    using Time = std::chrono::steady_clock::time_point;

    X11Source(std::unique_ptr<X11Connection> connection, std::unique_ptr<X11View> view);
    void handle_event(const xcb_generic_event_t& event);
    bool find_place();
    bool allocate_image(PictureSize size);
    bool bring_up_to_date(bool pointer);
    void find_changes(bool pointer);
    uint32_t checks_due() const;
    void checked(uint32_t checks);
    void ask_ahead();
    bool read_ahead();
    void draw_pointer();
    bool fetch(uint32_t checks);
    BgraImage image() const;
    void note_loss();
    void note_refusal();

    std::unique_ptr<X11Connection> connection_;
    std::unique_ptr<X11View> view_;
    X11Pointer pointer_;
    X11Damage damage_;
    X11Place place_{};
    std::unique_ptr<X11Image> image_;
    bool place_stale_ = true;
    // whether all must be fetched
    bool pixels_stale_ = true;
    bool told_of_plain_ = false;
    bool told_of_refusal_ = false;
    bool told_of_loss_ = false;
    uint64_t serial_ = 0;
    uint64_t serial_before_ = 0;
    // between the images of the two serials
    PartList changed_;
    // pointer_.changes() when it was drawn
    uint64_t pointer_at_ = 0;
    // whether the last grab was with the pointer
    bool pointer_shown_ = false;
    Time checked_until_{};
    // grabs in a row that found no change
    uint32_t unchanged_ = 0;
    // questions for the next picture that have been asked
    bool asked_ahead_ = false;
    bool check_ahead_ = false;
};

} // namespace zu3host
