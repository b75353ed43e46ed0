#pragma once

#include "audio/pulse_module.h"

#include <functional>
#include <pulse/pulseaudio.h>
#include <string>
#include <vector>

namespace zu3host {

/** The description of a source for the program. Throws std::bad_alloc. */
PulseSourceInfo described(const pa_source_info& source);

/**
 * The source for "microphone": the default one, or if that is a monitor, the first that is not one;
 * null if there is none.
 */
const PulseSourceInfo* microphone_among(const std::vector<PulseSourceInfo>& sources,
                                        const std::string& default_source);

/** The source for "desktop": the monitor of the default output; null if there is none. */
const PulseSourceInfo* desktop_among(const std::vector<PulseSourceInfo>& sources,
                                     const std::string& default_output);

/**
 * Finds the server's source that matches a choice, again after each change of sources or defaults.
 * The special name of the default monitor does not help: PipeWire 0.3.65 resolves it to the default
 * source. Use it on the thread that runs the main loop.
 */
class SourceFinder {
public:
    /** Receives the source's name, "" = there is none; must not throw. */
    using Found = std::function<void(const std::string& name)>;

    /**
     * Searches now, and after each change of the server's sources or defaults.
     * @param api of the main loop; it and `context`, which is ready, must outlive this object
     */
    SourceFinder(pa_mainloop_api* api, pa_context* context, WantedSource wanted, Found found);
    SourceFinder(const SourceFinder&) = delete;
    SourceFinder& operator=(const SourceFinder&) = delete;
    ~SourceFinder();

    /**
     * Call it when the stream from the last found source has ended. Searches again at the server's
     * next change, or in a second, and reports the result even if it is the same source.
     */
    void lost();

private:
    static void changed(pa_context* context, pa_subscription_event_type_t type, uint32_t index,
                        void* self);
    static void waited(pa_mainloop_api* api, pa_time_event* event, const timeval* time, void* self);
    static void take_defaults(pa_context* context, const pa_server_info* info, void* self);
    static void take_source(pa_context* context, const pa_source_info* info, int end, void* self);
    void look();
    void stop_waiting();
    void ask(pa_operation* question);
    void decide();
    std::string wanted_name() const;

    pa_mainloop_api* const api_;
    pa_context* const context_;
    const WantedSource wanted_;
    const Found found_;
    pa_time_event* waiting_ = nullptr;
    bool looking_ = false;
    /** something changed before the answers arrived */
    bool again_ = false;
    bool decided_ = false;
    std::string current_;
    std::string default_source_;
    std::string default_output_;
    std::vector<PulseSourceInfo> sources_;
};

} // namespace zu3host
