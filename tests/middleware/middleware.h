/**
 * The scripted middleware: one double of everything under the platform contract, on which the
 * library's objects run in the unit tests. It logs every call, answers as a good device or as a
 * script says, keeps a ledger of what is open, checks locks, owns a virtual clock and plays the
 * middleware's own threads.
 *
 *     mw.fail("ZU_VENC_Open", {.result = 7}); // the next ZU_VENC_Open answers 7
 *     mw.inside("ZU_CAP_CaptureStop", [&] { mw.fire_picture({.luma = 0x100}); });
 *     EXPECT_EQ(video_capenc_open(&params), -1);
 *     EXPECT_CALLS(mw.take_calls(), {"ZU_CAP_Open(path=0)=0 h=0x11", "..."});
 *     mw.tolerate_problem("task Tscode:6 is left"); // TearDown fails on every other problem
 *
 * Time is virtual. While a thread that is no task waits in the middleware (a delay, a mutex, the
 * deletion of a task, advance()) and all tasks, callback threads and holders of mutexes wait too,
 * the clock jumps to the earliest deadline. So advance(1000) runs a task with a period of 100 ms
 * ten times, and a delay on the test's own thread or in a callback returns at once. A thread that
 * waits elsewhere, in a std::mutex, does not move the clock.
 *
 * Names in scripts are function names, some with a variant: "ZU_OS_IommuOperation:GET_BUFFD",
 * "ZU_TSMUX_SetAttr:0x202". Hooks and callbacks run without a lock of the double. A call that ends
 * something (close, delete, free, de-initialise, detach, put) ends it even if scripted to fail; any
 * other call that is scripted to fail does nothing.
 */
#pragma once

#include <algorithm>
#include <future>
#include <gtest/gtest.h>
#include <initializer_list>

#include "middleware/state.h"

namespace middleware {

/** A point where threads stop, and count as waiting, until the test opens it. */
class Gate {
public:
    /** Called from a hook: waits until the gate is open. */
    void wait();
    /** Waits until a thread has arrived; false after a minute. */
    bool wait_for_arrival();
    void open();

private:
    bool arrived_ = false, open_ = false;
    std::list<Waiter*> waiters_ = {};
};

/** A captured picture as the capture device reports it. */
struct Picture {
    u32 buffer = 0;
    /** physical addresses */
    u64 luma = 0;
    u64 chroma = 0;
};

/** An encoded frame. The bytes live during the callback only. */
struct EncodedFrame {
    Bytes bytes = {};
    u8 type = 1;
    u64 pts = ~u64{0};
    u32 input_index = 0;
    u32 event = ZU_VENC_EVENT_FRAME;
    /** if it is not that of the bytes; without bytes the pointer is NULL */
    std::optional<u32> size = {};
    /** the record pointer itself is NULL */
    bool null_record = false;
};

/**
 * The results besides full success that the contract allows for `call` ("ZU_VENC_SetAttr:0x1" or
 * "ZU_VENC_SetAttr"): first the plain failure, last successes without output. Empty if it cannot
 * fail.
 */
std::vector<s64> contract_results(const std::string& call);

/** Renderers of watermarks that exist; readable to the very end of the process. */
extern int live_workers;

class Middleware {
public:
    /** The one double of the process; never destroyed. */
    static Middleware& instance();
    /** Ends what is left and forgets everything: log, script, ledger, clock, files, settings. */
    void reset();

    // --- the log of calls
    /** Calls so far, without mutexes, delays, clocks and log lines; forgets all calls. */
    std::vector<std::string> take_calls();
    /** Every call by the name that scripts know it by, with its variant, if it has one. */
    std::vector<std::string> call_names() const;
    /** Calls that begin with one of the prefixes; the noise too, if a prefix asks for it. */
    std::vector<std::string> calls_of(std::initializer_list<std::string_view> prefixes) const;
    int count(std::string_view function) const;
    /** The records given last to the calls that open or start. */
    LastParams last() const { return Locked()->last; }

    // --- Android's log
    /** "E [SCREENRECORD_Open]INVALID Trancode Id!": no line number, no line end; forgets them. */
    std::vector<std::string> take_logs() { return std::exchange(Locked()->log, {}); }

    // --- the script
    /** "*" names all calls but those that cannot fail: clocks, delays, releases, log. */
    void fail(const std::string& name, Answer answer = {})
    {
        Locked()->script.push_back({name, answer});
    }
    /** Runs `hook` inside the call. */
    void inside(const std::string& name, std::function<void()> hook, When when = {})
    {
        Locked()->script.push_back(
            {name, {{}, when.nth, when.forever}, std::move(hook), when.behind});
    }
    /** Whether an answer that comes once was not asked for yet. */
    bool script_pending() const
    {
        return std::ranges::any_of(Locked()->script,
                                   [](const ScriptEntry& entry) { return !entry.hook; });
    }
    /** Forgets all answers and hooks. */
    void clear_script() { Locked()->script.clear(); }

    // --- the ledger
    /** A sentence for each wrong use so far and for each leftover, except what is tolerated. */
    std::vector<std::string> ledger_problems() const;
    /** Such a problem may be there; a part of the sentence is enough. */
    void tolerate_problem(const std::string& part) { Locked()->tolerated.push_back(part); }

    // --- time and tasks
    s64 now_ms() const { return Locked()->now_ns / 1'000'000; }
    void set_now_us(s64 us) { Locked()->now_ns = us * 1000; }
    /** Lets `ms` pass, waking waiters in their order; returns when all threads wait again. */
    void advance(s64 ms);
    /** Waits until every task and callback thread waits in the middleware or has ended. */
    void settle() { advance(0); }
    /** Lets time pass as soon as all tasks wait, also when no other thread does. */
    void run_freely(bool on);
    /** From now on tasks are created but not run. */
    void hold_tasks() { Locked()->tasks_held = true; }

    // --- the middleware's own threads: the device opened last calls in, also after it was closed
    u32 fire_picture(const Picture& picture);
    u32 fire_encoded_frame(const EncodedFrame& frame);
    u32 fire_event(Kind kind, u32 event);
    /**
     * Runs `work` (one of the above) on a thread of the middleware; the future joins it. Without
     * `lets_time_pass` its waits do not move the clock, as a task's do not.
     */
    std::future<u32> fire_on_thread(std::function<u32()> work, bool lets_time_pass = true);

    // --- memory and files
    /** Makes `size` bytes at `pointer` reachable by address conversion. */
    void map_physical(u64 physical, void* pointer, u32 size)
    {
        Locked()->physical[physical] = {static_cast<u8*>(pointer), size};
    }
    InjectBuffer offer_inject_buffer(u32 size);
    void add_file(const std::string& name, const Bytes& bytes) { Locked()->files[name] = bytes; }
    Bytes file(const std::string& name) const { return Locked()->files.at(name); }

    // --- data into and out of devices
    /** What ZU_TSMUX_CopyOutputStream hands out. */
    void queue_output(const Bytes& bytes)
    {
        std::ranges::copy(bytes, std::back_inserter(Locked()->output));
    }
    /** What ZU_ACAP_Read hands out. */
    void queue_audio(const Bytes& bytes)
    {
        std::ranges::copy(bytes, std::back_inserter(Locked()->audio));
    }
    std::vector<PushedFrame> pushed() const { return Locked()->pushed; }
    /** As completed; pu8Data is NULL for lent ones. */
    std::vector<ZU_VENC_InputBuffer_t> encoder_inputs() const { return Locked()->inputs; }
    /** Bytes of the lent buffer completed last. */
    Bytes last_encoder_input() const { return Locked()->last_input; }

    /** How the devices are; set before the library runs. */
    struct Settings {
        ZU_VENC_Caps_t encoder = {3840, 2160, 120, 1, 4096, {}};
        u32 encoder_input_size = 640 * 480 * 3 / 2;
        /** none = what is queued */
        std::optional<u32> audio_level = {};
        /** Bytes that a device claims to have read, copied out, or offered; may be wrong. */
        std::optional<u32> claimed_read = {}, claimed_copy = {}, claimed_inject_size = {};
        /** the first IOMMU descriptor; 0 is a good one */
        s32 first_fd = 0;
        /** after which a task that hangs is given up; none = never */
        std::optional<s64> deletion_ms = {};
    } settings;

private:
    Middleware() = default;
};

/** The lines as one text, which GoogleTest compares line by line. */
template <class Lines> std::string joined(const Lines& lines)
{
    std::string result;
    for (const std::string& line : lines)
        result += line + "\n";
    return result;
}

/** Compares two lists of lines; a failure shows a line-by-line difference. */
inline void expect_lines(const char* file, int line, const std::vector<std::string>& actual,
                         const std::vector<std::string>& expected)
{
    ::testing::ScopedTrace trace(file, line, "compared here");
    EXPECT_EQ(joined(actual), joined(expected));
}
#define EXPECT_CALLS(actual, ...)                                                                  \
    ::middleware::expect_lines(__FILE__, __LINE__, (actual), __VA_ARGS__)

/** Every test starts with a fresh double and ends with a clean ledger. */
class MiddlewareTest : public ::testing::Test {
protected:
    Middleware& mw = Middleware::instance();

    void SetUp() override { mw.reset(); }
    void TearDown() override
    {
        for (const std::string& problem : mw.ledger_problems())
            ADD_FAILURE() << problem;
        mw.reset();
    }
};

} // namespace middleware
