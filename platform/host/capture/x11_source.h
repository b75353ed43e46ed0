#pragma once

#include "capture/patient_source.h"
#include "capture/x11_connection.h"
#include "capture/x11_image.h"
#include "capture/x11_pointer.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <xcb/damage.h>

namespace zu3host {

/** Whether anything was drawn on an X11 screen since a moment. One thread at a time. */
class X11Damage {
public:
    explicit X11Damage(X11Connection& connection);

    /** Whether the server can tell. */
    bool available() const { return damage_ != 0; }
    /** Takes note of an event; false when it does not concern drawing. */
    bool handle_event(const xcb_generic_event_t& event);
    /**
     * Sent ahead of a request for the picture: drawing from then on counts. No round trip.
     */
    void reset();
    /**
     * Whether something was drawn, as far as events have been taken; may be true if nothing was.
     */
    bool changed() const { return changed_; }

private:
    X11Connection& connection_;
    xcb_damage_damage_t damage_ = 0;
    uint8_t first_event_ = 0;
    bool changed_ = true;
};

/**
 * The whole X11 screen that DISPLAY names, all its monitors, in its own size; follows when that
 * changes. When the server goes away it says so once in the log and in the statistics, and has no
 * pictures from then on.
 */
class X11Source : public WaitingSource {
public:
    /** Null, with a log line, when the display cannot be reached or its pixels cannot be read. */
    static std::unique_ptr<X11Source> open();
    ~X11Source() override;

    /** Waits without a bound: the stop and the patience of the request are the caller's to keep. */
    std::optional<BgraImage> grab(const GrabRequest& request) override;
    void cut() override { connection_->cut(); }

private:
    explicit X11Source(std::unique_ptr<X11Connection> connection);
    void handle_event(const xcb_generic_event_t& event);
    bool make_image();
    bool still_shows(const GrabRequest& request);
    bool fetch(const GrabRequest& request);
    BgraImage image() const
    {
        return {image_->pixels(), image_->stride(), image_->size(), serial_};
    }
    void note_loss();
    void note_refusal();

    std::unique_ptr<X11Connection> connection_;
    X11Pointer pointer_;
    X11Damage damage_;
    std::unique_ptr<X11Image> image_;
    bool size_stale_ = true;
    bool told_of_plain_ = false;
    bool told_of_refusal_ = false;
    bool told_of_loss_ = false;
    uint64_t serial_ = 0;
    // asked for within this grab
    bool pointer_known_ = false;
    // into the image
    bool pointer_drawn_ = false;
    // its changes() then
    uint64_t pointer_at_ = 0;
    std::chrono::steady_clock::time_point fetched_{};
};

} // namespace zu3host
