#pragma once

#include "capture/change_pace.h"
#include "capture/portal/screen_canvas.h"
#include "capture/portal/stream_frame.h"
#include "capture/portal/stream_memory.h"

#include <chrono>
#include <common/descriptor.h>
#include <cstdint>
#include <memory>
#include <optional>
#include <pipewire/pipewire.h>
#include <string>
#include <unordered_map>
#include <vector>

namespace zu3host {

/**
 * The pictures of one node of PipeWire. A private thread keeps the newest buffer and returns the
 * others, so that the compositor always has one to fill; only show() reads and converts. One thread
 * at a time.
 */
class PipewireStream {
public:
    /**
     * Connects, and waits for the first picture up to `patience`.
     * @param failure the end of a sentence
     */
    static std::unique_ptr<PipewireStream> open(common::Descriptor remote, uint32_t node,
                                                std::chrono::milliseconds patience,
                                                std::string& failure);
    ~PipewireStream();
    PipewireStream(const PipewireStream&) = delete;
    PipewireStream& operator=(const PipewireStream&) = delete;

    /** Waits for a picture that show() has not seen and that is the last one before `due`. */
    void wait_for_last_before(ChangePace::Clock::time_point due);
    /** Brings a canvas up to date with the newest buffer and pointer; does not wait. */
    void show(ScreenCanvas& canvas, bool pointer);
    /** Why there are no more pictures, as the end of a sentence; nullopt while there may be. */
    std::optional<std::string> ended() const;

private:
    class Locked;
    struct Latest {
        pw_buffer* buffer = nullptr;
        FrameLayout layout{};
        // of the buffers since the last show(): the changed parts, unless `all` is set
        bool all = true;
        std::vector<PictureRectangle> damage{};
        bool fresh = false;
    };

    PipewireStream() = default;
    bool start(common::Descriptor remote, uint32_t node, std::string& failure);
    bool connect();
    bool wait_for_first(std::chrono::milliseconds patience, std::string& failure);
    void end(const std::string& reason);
    void forget_latest();

    std::optional<std::string> unjoined_reason() const;
    void on_state(pw_stream_state state, const char* error);
    void on_format(const spa_pod* format);
    void on_add_buffer(pw_buffer* buffer);
    void on_remove_buffer(pw_buffer* buffer);
    void on_process();
    bool keep(pw_buffer* buffer);
    bool has_last_before(ChangePace::Clock::time_point due) const
    {
        return latest_.fresh && changes_.is_last_before(due);
    }
    void on_core_error(uint32_t id, int result, const char* message);
    void on_gone(uint32_t id);

    static const pw_stream_events stream_events;
    static const pw_core_events core_events;
    static const pw_registry_events registry_events;

    pw_thread_loop* loop_ = nullptr;
    pw_context* context_ = nullptr;
    pw_core* core_ = nullptr;
    pw_registry* registry_ = nullptr;
    pw_stream* stream_ = nullptr;
    spa_hook stream_hook_{};
    spa_hook core_hook_{};
    spa_hook registry_hook_{};
    uint32_t node_ = 0;

    // The members from here on are for the loop's thread, or need its lock.
    // whether PipeWire lists the node
    bool node_there_ = false;
    std::optional<StreamFormat> format_;
    bool had_format_ = false;
    std::unordered_map<pw_buffer*, std::unique_ptr<StreamMemory>> memories_;
    Latest latest_;
    // the usual frame interval, since the stream has no fixed one
    ChangePace changes_{std::chrono::nanoseconds(std::chrono::seconds(1)) / 60};
    // pictures before this moment are awaited
    ChangePace::Clock::time_point awaited_{};
    Cursor cursor_;
    std::optional<std::string> ended_;
    bool unusable_memory_ = false;
};

} // namespace zu3host
