#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zu3host {

/** Which source of the sound server a connection records. */
struct WantedSource {
    enum class Kind {
        /** the monitor of the default output */
        desktop,
        /** the default source, or if that is a monitor, the first source that is not one */
        microphone,
        named,
    };
    Kind kind = Kind::desktop;
    /** as listed by list_sources(); for `named` */
    std::string name;
};

/** Receives what a PulseLoop hears, within dispatch(). Must not throw: libpulse calls it. */
class PulseListener {
public:
    /** Sound arrives from now on, unless the connection fails. */
    virtual void connected() noexcept = 0;
    /** The server lacks that source; connected() follows once it has one. */
    virtual void absent() noexcept = 0;
    /**
     * @param samples `frames` frames of 48 kHz stereo, or null if the server lost them
     * @param heard_us when the first one was heard, microseconds of the monotonic clock
     */
    virtual void heard(const int16_t* samples, int64_t frames, int64_t heard_us) noexcept = 0;

protected:
    ~PulseListener() = default;
};

/**
 * A main loop of libpulse with at most one connection, which records one source. It never starts a
 * server. All calls but wake_up() belong to one thread.
 */
class PulseLoop {
public:
    virtual ~PulseLoop() = default;

    /** Replaces an earlier connection; failure() tells if it ends. Throws std::bad_alloc. */
    virtual void connect(PulseListener& listener, const WantedSource& wanted) = 0;
    virtual void disconnect() = 0;
    /**
     * Why the connection ended or never came about; it does not recover. Null while it has not
     * failed. Lives as long as the process.
     */
    virtual const char* failure() const = 0;

    /** Has a connected server send an answer. */
    virtual void ask() = 0;

    /** The three steps of one iteration, as pa_mainloop_prepare() and so on; negative = broken. */
    virtual int prepare(int timeout_us) = 0;
    virtual int poll() = 0;
    virtual int dispatch() = 0;
    /** Ends a poll(). From any thread. */
    virtual void wake_up() = 0;
};

/** A source of the sound server. */
struct PulseSourceInfo {
    std::string name;
    std::string description;
    /** samples per second and channel */
    uint32_t sample_rate;
    uint32_t channels;
    /** the output that it monitors; "" = it is not a monitor */
    std::string monitor_of;
    /** whether it is the desktop's sound: the monitor of the default output */
    bool recorded;
    /** whether `microphone` selects it now */
    bool microphone;
};

/**
 * The functions of the module libzu3_pulse.so. Only this module links libpulse, which needs two
 * dozen libraries, 3 MiB of memory and 2 ms of a program's start. Recordings without sound and
 * screenshots do not load it.
 */
struct PulseModule {
    /** Null without memory. */
    std::unique_ptr<PulseLoop> (*make_loop)();
    /** False if no server answers within 3 s. May throw std::bad_alloc. */
    bool (*list_sources)(std::vector<PulseSourceInfo>& sources);
};

/**
 * Loads the module, once a process. From any thread.
 * @param failure why it cannot be loaded
 * @return null if it, or libpulse, cannot be loaded
 */
const PulseModule* load_pulse_module(const char*& failure);

/** The module's one exported function. */
inline constexpr char pulse_module_entry[] = "zu3_pulse_module";
using PulseModuleEntry = const PulseModule* (*)();

} // namespace zu3host
