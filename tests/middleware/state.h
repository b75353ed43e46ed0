/** The double's state, which its parts share under one mutex, and its records. */
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "zu3/acap.h"
#include "zu3/cap.h"
#include "zu3/caps.h"
#include "zu3/disp.h"
#include "zu3/fs.h"
#include "zu3/os.h"
#include "zu3/sys.h"
#include "zu3/tsmux.h"
#include "zu3/venc.h"

namespace middleware {

using Bytes = std::vector<u8>;

/** The answer of a scripted call, and its moment. */
struct Answer {
    /** none = the function's own failure value (3; 0 or -1 for files) */
    std::optional<s64> result = {};
    /** 1 = the next call of that name, counted from the scripting on */
    int nth = 1;
    /** from the n-th on */
    bool forever = false;
    /** it does its work, writes what it writes, and then answers this */
    bool takes_effect = false;
};

/** When a hook runs: at the n-th call of the name from now on, once or for ever. */
struct When {
    int nth = 1;
    bool forever = false;
    /** after the call's effect, before it returns; otherwise before it has any */
    bool behind = false;
};

/** A frame that ZU_TSMUX_PushMediaData accepted. */
struct PushedFrame {
    u64 source;
    Bytes bytes;
    u64 pts;
};

/** The encoder's entire inject buffer, offered by Middleware::offer_inject_buffer. */
struct InjectBuffer {
    /** below 4 GiB */
    u8* address;
    u32 size;
    /** of address */
    u64 physical;
    /** start of the block that contains it, 8192 bytes earlier */
    u64 block_physical;
};

using Lock = std::unique_lock<std::mutex>;

constexpr s64 never = INT64_MAX;
/** for a thread that must come soon, on a slow emulated machine */
constexpr std::chrono::seconds real_patience(60);

struct Call {
    std::string function;
    // with its variant, if it has one
    std::string full_name;
    std::string arguments;
    std::string outcome = ""; // "=0 h=0x11", empty while it runs
};

struct ScriptEntry {
    std::string name; // "*" = any call that can fail
    Answer answer;
    // set = a hook, no answer
    std::function<void()> hook = {};
    bool behind = false;
};

/** A thread that waits in the middleware. */
struct Waiter {
    std::thread::id thread;
    s64 deadline_ns;
    // no task: lets time pass
    bool client;
    bool woken = false;
    bool expired = false;
};

struct Mutex {
    std::string name;
    // of no thread while it is free
    std::thread::id owner = {};
    std::list<Waiter*> queue = {};

    bool held() const { return owner != std::thread::id(); }
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

using Callback = std::function<u32(u32 event, void* record)>;

struct Device {
    Kind kind;
    bool alive = true;
    // a removal was scripted to fail: a registration at the close is no fault
    bool excused = false;
    // 0 = none
    u64 registration = 0;
    Callback callback = {};
    u32 display = 0;
    std::map<u64, ZU_TSMUX_MediaSourceParams_t> sources = {};
    std::map<u8*, std::unique_ptr<u8[]>> lent = {};
    // capture buffers that the library holds
    std::map<u32, int> pictures = {};
    // callbacks that have not returned: a close need not wait for them
    int pictures_on_their_way = 0;
};

/** The records given last to ZU_VENC_Open, ZU_TSMUX_Open and ZU_CAP_CaptureStart. */
struct LastParams {
    ZU_VENC_OpenParams_t encoder;
    ZU_TSMUX_OpenParams_t multiplexer;
    ZU_CAP_CaptureParams_t capture;
};

struct OpenFile {
    std::string name;
    bool writable;
    size_t position = 0;
};

struct State {
    mutable std::mutex mutex;
    std::condition_variable changed;

    std::deque<Call> calls;
    size_t calls_forgotten = 0;
    std::vector<std::string> log;
    LastParams last = {};
    std::list<ScriptEntry> script;
    std::vector<std::string> problems, tolerated;

    s64 now_ns = 0;
    bool run_freely = false;
    bool tasks_held = false;
    std::list<Waiter*> waiters;
    std::set<std::thread::id> callback_threads;
    std::map<s32, Mutex> mutexes;
    std::map<s32, std::set<s32>> lock_order;
    std::map<s32, Task> tasks;
    s32 next_mutex = 0, next_task = 1;

    // dead ones stay, for late callbacks
    std::map<u32, Device> devices;
    std::map<Kind, u32> last_of_kind;
    std::map<Kind, u32> next_handle;
    std::set<u64> excused_registrations;
    u64 next_registration = 0, next_source = 0;
    std::set<std::string> initialised;

    std::map<u64, std::span<u8>> physical;
    // sizes of the IOMMU blocks, which stay without memory
    std::map<u64, u32> blocks;
    std::vector<std::span<u8>> low_memory;
    u64 next_block = 0x2'8000'0000;
    std::set<s32> descriptors;
    // counted from the settings' first_fd
    s32 next_descriptor = 0;
    InjectBuffer inject = {};
    std::span<u8> output_region;

    std::map<std::string, Bytes> files;
    std::map<u32, OpenFile> open_files;
    u32 next_file = 0;

    std::deque<u8> output, audio;
    std::vector<PushedFrame> pushed;
    std::vector<ZU_VENC_InputBuffer_t> inputs;
    Bytes last_input;
};

State& state();

/** The state for one expression, with its lock held. */
class Locked {
public:
    State* operator->() const { return &state(); }

private:
    const Lock lock_ = Lock(state().mutex);
};

/** The values one behind the other, bytes as numbers. */
template <class... Values> std::string text(const Values&... values)
{
    const auto printable = [](const auto& value) {
        if constexpr (std::is_convertible_v<decltype(value), std::string_view>)
            return std::string_view(value);
        else
            return +value;
    };
    std::ostringstream out;
    ((out << printable(values)), ...);
    return out.str();
}
std::string hex(u64 value);

} // namespace middleware
