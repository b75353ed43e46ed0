#pragma once

#include "capture/picture_source.h"
#include "capture/wayland/copy_buffer.h"
#include "capture/wayland/wayland_session.h"

#include <array>
#include <chrono>
#include <memory>
#include <span>

namespace zu3host {

/**
 * One copy of an output: the compositor first announces the layout, then gets the request to copy.
 * It answers once the output differs from the last copy, or with a failure. Events arrive within
 * the connection's waits.
 */
class FrameCopy {
public:
    enum class State : uint8_t {
        /** waits for the layout */
        announced,
        /** the layout is known */
        offered,
        /** waits for the copy */
        asked,
        complete,
        failed,
    };

    /** Throws std::bad_alloc. */
    FrameCopy(const WaylandSession& session, wl_output* output, bool pointer);
    ~FrameCopy();
    FrameCopy(const FrameCopy&) = delete;
    FrameCopy& operator=(const FrameCopy&) = delete;

    State state() const { return state_; }
    /** From `offered` on. Check that it is possible, since the compositor chose it. */
    const CopyLayout& layout() const { return layout_; }
    /** Once past `announced`: why it cannot be copied or shown; no failure if it can. */
    WaylandProblem problem() const;
    bool shows_pointer() const { return pointer_; }
    /**
     * Requests the copy, in state `offered`, into a buffer of the layout that outlives this object.
     * The compositor counts changes from the last copy, with the pointer or without.
     */
    void ask(const CopyBuffer& buffer, bool only_if_changed);
    /** Once complete: when the output showed it, on the compositor's clock, modulo 2^32 s. */
    std::chrono::nanoseconds shown() const { return shown_; }
    /** Once complete: whether the first line is the lowest one. */
    bool is_upside_down() const { return upside_down_; }
    /**
     * Once complete: the parts of the buffer that differ from the last copy; empty = all may
     * differ.
     */
    std::span<const PictureRectangle> damage() const
    {
        return {damage_.data(), damage_is_known_ ? damage_count_ : 0};
    }

private:
    static FrameCopy& self(void* data) { return *static_cast<FrameCopy*>(data); }
    static const ScreencopyFrameListener listener;
    void offer(const CopyLayout& layout, bool last);
    /** Later events do not change a complete copy. */
    void end(State end);
    void add_damage(PictureRectangle part);

    const bool pointer_;
    const bool done_follows_;
    ScreencopyFrame* const proxy_;
    State state_ = State::announced;
    CopyLayout layout_{};
    std::chrono::nanoseconds shown_{};
    bool upside_down_ = false;
    std::array<PictureRectangle, 32> damage_{};
    size_t damage_count_ = 0;
    bool damage_is_known_ = true;
};

} // namespace zu3host
