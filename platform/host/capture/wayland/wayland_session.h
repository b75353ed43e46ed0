#pragma once

#include "capture/wayland/screencopy_protocol.h"
#include "capture/wayland/wayland_connection.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zu3host {

/** An output as the compositor describes it. */
struct WaylandOutput {
    /** of the registry */
    uint32_t id = 0;
    wl_output* proxy = nullptr;
    LogicalOutput* logical = nullptr;
    std::string name;
    std::string description;
    /** of the current mode, in pixels, not rotated */
    int32_t mode_width = 0;
    int32_t mode_height = 0;
    int32_t refresh_mhz = 0;
    /** in a logical pixel; rounded up */
    int32_t scale = 1;
    /** 0 = unknown */
    int32_t logical_width = 0;
    /** wl_output_transform */
    int32_t transform = 0;

    WaylandOutput() = default;
    ~WaylandOutput();
    WaylandOutput(const WaylandOutput&) = delete;
    WaylandOutput& operator=(const WaylandOutput&) = delete;

    /** For users; `recorded` is false. */
    ScreenOutput description_of() const;
};

/** A connection with the globals that a copy needs. One thread at a time, except for cut(). */
class WaylandSession {
public:
    /**
     * Connects, and waits for the compositor's globals until the deadline. Null with the problem.
     */
    static std::unique_ptr<WaylandSession> open(WaylandConnection::Clock::time_point deadline,
                                                WaylandProblem& problem);
    ~WaylandSession();
    WaylandSession(const WaylandSession&) = delete;
    WaylandSession& operator=(const WaylandSession&) = delete;

    WaylandConnection& connection() { return *connection_; }
    wl_shm* shm() const { return shm_; }
    /** Null if the compositor does not copy its outputs for this program. */
    ScreencopyManager* screencopy() const { return screencopy_; }
    bool copy_tells_its_last_buffer() const
    {
        return screencopy_version_ >= screencopy_version_with_done;
    }
    /** In the compositor's order. */
    const std::vector<std::unique_ptr<WaylandOutput>>& outputs() const { return outputs_; }
    /** Why outputs cannot be copied; no failure if the session has all that a copy needs. */
    WaylandProblem problem() const;
    /**
     * The output to record: that of the name, or without a name the first. Wayland has no primary
     * output, so "primary" is the only one. Null, with the problem, if there is none.
     */
    const WaylandOutput* choose_output(const std::string& monitor, WaylandProblem& problem) const;

    /** The output of that id; null after it was removed. */
    const WaylandOutput* output(uint32_t id) const;

    /** Asks the compositor for an answer after all earlier requests. */
    bool ask_for_answer();
    /** Whether such an answer is missing. */
    bool answer_is_missing() const { return answer_ != nullptr; }

private:
    explicit WaylandSession(std::unique_ptr<WaylandConnection> connection)
        : connection_(std::move(connection))
    {
    }
    static void global(void* self, wl_registry* registry, uint32_t id, const char* interface,
                       uint32_t version);
    static void global_removed(void* self, wl_registry* registry, uint32_t id);
    static void answered(void* self, wl_callback* callback, uint32_t serial);
    void bind(uint32_t id, const char* interface, uint32_t version);
    void add_output(uint32_t id, uint32_t version);
    void ask_for_logical_sizes();
    bool wait_for_answer(WaylandConnection::Clock::time_point deadline);

    const std::unique_ptr<WaylandConnection> connection_;
    wl_registry* registry_ = nullptr;
    wl_callback* answer_ = nullptr;
    wl_shm* shm_ = nullptr;
    ScreencopyManager* screencopy_ = nullptr;
    uint32_t screencopy_version_ = 0;
    LogicalOutputManager* logical_outputs_ = nullptr;
    std::vector<std::unique_ptr<WaylandOutput>> outputs_;
};

} // namespace zu3host
