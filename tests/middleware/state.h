/** What the parts of the double share: its state under one mutex, and the frame that every contract function
 * uses. */
#pragma once

#include <condition_variable>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "middleware/middleware.h"

namespace middleware {

using Lock = std::unique_lock<std::mutex>;

constexpr s64 never = INT64_MAX;
constexpr int real_patience_seconds = 60; // for a thread that must come soon, on a slow emulated machine

struct Call {
    std::string function;
    std::string variant;
    std::string arguments;
    std::string outcome; // "=0 h=0x11", empty while it runs
};

struct ScriptEntry {
    std::string name; // "*" = any call that can fail
    Answer answer;
    std::function<void()> hook; // set = a hook, no answer
    bool after = false;
    bool used = false;
};

/** A thread that waits in the middleware. */
struct Waiter {
    std::thread::id thread;
    s64 deadline_ns;
    bool client; // no task: lets time pass
    bool woken = false;
    bool expired = false;
};

struct Mutex {
    std::string name;
    bool held = false;
    std::thread::id owner = {};
    std::list<Waiter*> queue = {};
};

enum class TaskState { held, running, finished };

struct Task {
    std::string name;
    ZU_OS_TaskEntry entry = nullptr;
    void* argument = nullptr;
    TaskState state = TaskState::held;
    std::thread::id runner = {};
    std::thread thread = {};
    std::list<Waiter*> joiners = {};
};

enum class Kind { capture, encoder, audio, multiplexer };

struct Device {
    Kind kind;
    bool alive = true;
    bool excused = false; // a removal was scripted to fail: what is still registered at the close is no fault
    u64 registration = 0; // 0 = none
    ZU_CAP_Callback capture_callback = nullptr;
    ZU_VENC_Callback encoder_callback = nullptr;
    ZU_ACAP_Callback audio_callback = nullptr;
    ZU_TSMUX_Callback multiplexer_callback = nullptr;
    void* user_data = nullptr;
    u32 display = 0;
    std::map<u64, ZU_TSMUX_MediaSourceParams_t> sources = {};
    std::map<u8*, std::unique_ptr<u8[]>> lent = {};
    std::map<u32, int> pictures = {}; // capture buffers that the library holds
    int pictures_on_their_way = 0;    // callbacks that have not returned: a close need not wait for them
};

struct Mapping {
    u8* pointer;
    u32 size;
};

struct OpenFile {
    std::string name;
    bool writable;
    size_t position = 0;
};

struct FreeMemory {
    void operator()(void* memory) const;
};

struct IommuBlock {
    u32 size;
    std::unique_ptr<void, FreeMemory> memory;
};

struct LowMapping {
    void* memory;
    size_t size;
};

struct State {
    mutable std::mutex mutex;
    std::condition_variable changed;

    std::deque<Call> calls;
    size_t calls_forgotten = 0;
    std::vector<LogLine> log;
    std::map<std::string, Bytes> records;
    std::list<ScriptEntry> script;
    std::vector<std::string> problems, tolerated;

    s64 now_ns = 0;
    bool run_freely = false;
    bool tasks_held = false;
    std::list<Waiter*> waiters;
    std::set<std::thread::id> callback_threads;
    std::map<s32, Mutex> mutexes;
    std::set<s32> dead_mutexes;
    std::map<s32, std::set<s32>> lock_order;
    std::map<s32, Task> tasks;
    s32 next_mutex = 0, next_task = 1;

    std::map<u32, Device> devices; // dead ones stay, for late callbacks
    std::map<Kind, u32> last_of_kind;
    std::map<Kind, u32> next_handle;
    std::set<u64> excused_registrations;
    u64 next_registration = 0, next_source = 0;
    std::set<std::string> initialised;

    std::map<u64, Mapping> physical;
    std::map<u64, IommuBlock> blocks;
    std::vector<LowMapping> low_memory;
    u64 next_block = 0;
    std::set<s32> descriptors;
    s32 next_descriptor = 0; // counted from the settings' first_fd
    InjectBuffer inject = {};
    u8* output_region = nullptr;

    std::map<std::string, File> files;
    std::map<u32, OpenFile> open_files;
    u32 next_file = 0;

    std::deque<u8> output, audio;
    std::vector<PushedFrame> pushed;
    std::vector<ZU_VENC_InputBuffer_t> inputs;
    Bytes last_input;
};

State& state();

/** Set while the calling thread runs a callback of a device that was closed: its calls on dead handles are
 * not its fault. */
extern thread_local u32 late_callback_depth;
/** Set on tasks: their waits alone do not let time pass. */
extern thread_local bool task_thread;

inline void put(std::ostringstream& out, std::string_view value)
{
    out << value;
}
inline void put(std::ostringstream& out, const char* value)
{
    out << (value ? value : "(null)");
}
template <class Integer>
requires std::is_integral_v<Integer> || std::is_enum_v<Integer>
void put(std::ostringstream& out, Integer value)
{
    out << +static_cast<std::conditional_t<std::is_enum_v<Integer>, int, Integer>>(value);
}
/** The values one behind the other. */
template <class... Values> std::string text(const Values&... values)
{
    std::ostringstream out;
    (put(out, values), ...);
    return out.str();
}
std::string hex(u64 value);

/** Adds a sentence to the problems; the state's lock is held. */
void problem(std::string sentence);

/** Keeps a copy of the record given to `function`. */
template <class Record> void keep(const std::string& function, const Record& record)
{
    const u8* bytes = reinterpret_cast<const u8*>(&record);
    state().records[function].assign(bytes, bytes + sizeof(Record));
}

/** What the effect of a call gets: the state's lock held, and room for what the log should show behind the
 * result. */
struct Context {
    Lock lock;
    bool refused; // a call that ends something is scripted to fail
    std::string note = {};
};

struct Ticket {
    size_t number;
    std::optional<s64> result = {};
    std::vector<std::function<void()>> before = {}, after = {};
};

Ticket begin_call(const std::string& function, const std::string& variant, std::string arguments);
void end_call(const Ticket& ticket, s64 result, const std::string& note);

/** Frame of every contract function: log, hooks, script, effect. `ends` = the effect runs also when it is to
 * fail. */
template <class Effect>
s64 perform(bool ends, const std::string& function, const std::string& variant, std::string arguments,
            Effect&& effect)
{
    const Ticket ticket = begin_call(function, variant, std::move(arguments));
    for (const auto& hook : ticket.before)
        hook();
    s64 result = 0;
    std::string note;
    if (ticket.result && !ends) {
        result = *ticket.result;
    } else {
        Context context{Lock(state().mutex), ticket.result.has_value()};
        result = effect(context);
        if (ticket.result)
            result = *ticket.result;
        note = std::move(context.note);
    }
    for (const auto& hook : ticket.after)
        hook();
    end_call(ticket, result, note);
    return result;
}
template <class Effect> u32 call(const std::string& function, std::string arguments, Effect&& effect)
{
    return static_cast<u32>(perform(false, function, "", std::move(arguments), effect));
}
template <class Effect> u32 ending_call(const std::string& function, std::string arguments, Effect&& effect)
{
    return static_cast<u32>(perform(true, function, "", std::move(arguments), effect));
}

/** Blocks the calling thread until another one wakes `waiter`, or virtual time passes its deadline. */
void wait(Lock& lock, Waiter& waiter, const std::string& what);
void wake(Waiter& waiter);
/** Moves the clock if nobody can run; called whenever somebody stopped running. */
void let_time_pass();

/** A live device of that kind, or nullptr after noting who called it dead. */
Device* live_device(u32 handle, Kind kind, const std::string& function);
u32 add_device(Kind kind);
/** Notes what is still attached, then marks the device dead. */
u32 close_device(Context& context, u32 handle, Kind kind, const std::string& function);
u64 new_registration();
/** Ends the registration that `id` (0 = whichever) names. */
u32 remove_registration(Context& context, u32 handle, Kind kind, u64 id, const std::string& function);
u32 initialise(const std::string& module, Context& context);
u32 deinitialise(const std::string& module, Context& context);

std::vector<std::string> leftovers();
void end_all_tasks(Lock& lock);
u8* new_low_memory(size_t size);
int renderer_objects_left();

} // namespace middleware
