/**
 * The scripted middleware: one double of everything under the platform contract, on which the library's
 * objects run in the unit tests. It logs every call, answers as a good device does or as a script says, keeps
 * a ledger of what is open, checks locks, owns a virtual clock and plays the middleware's own threads.
 *
 *     using middleware::MiddlewareTest;
 *
 *     TEST_F(MiddlewareTest, AnEncoderThatDoesNotOpenLeavesNoCaptureBehind)
 *     {
 *         CapEnc_OpenParams params = {...};
 *         mw.fail("ZU_VENC_Open", {.result = 7});               // the next ZU_VENC_Open answers 7
 *         mw.inside("ZU_CAP_CaptureStop", [&] { mw.fire_picture({.luma = 0x100}); });
 *         EXPECT_EQ(video_capenc_open(&params), -1);
 *         EXPECT_CALLS(mw.take_calls(), {"ZU_CAP_Open(path=0)=0 h=0x11", "..."});
 *         EXPECT_EQ(mw.last<ZU_VENC_OpenParams_t>("ZU_VENC_Open").u32Width, 640u);
 *         EXPECT_CALLS(mw.take_logs(), {"E [_SCREENRECORD_OpenVenc_NoTs]Fail to call ZU_VENC_Open()"});
 *         mw.tolerate_problem("task Tscode:6 is left");         // only where a leftover may be
 *     }                                                         // TearDown fails on every other problem
 *
 * Time: nothing takes real time. The clock moves only while a thread that is no task waits in the middleware
 * (a delay, a mutex, the deletion of a task, or advance() itself) and every task, callback thread and holder
 * of a mutex waits too; then it jumps to the earliest deadline. So advance(1000) lets a task with a period of
 * 100 ms run exactly ten times, and a delay on the test's own thread or in a callback returns at once. A
 * thread that waits outside the middleware (for a std::mutex of the library, say) is not known to wait and
 * does not move the clock.
 *
 * Names in scripts are function names; ZU_OS_IommuOperation, ZU_TSMUX_SetAttr and ZU_VENC_SetAttr also answer
 * to "ZU_OS_IommuOperation:GET_BUFFD", "ZU_TSMUX_SetAttr:0x202". Hooks and callbacks run with no lock of the
 * double. A call that ends something (close, delete, free, de-initialise, detach, put) ends it also when it
 * is scripted to fail; any other call that is scripted to fail does nothing.
 */
#pragma once

#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <initializer_list>
#include <list>
#include <optional>
#include <string>
#include <string_view>
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

/** What a scripted call answers instead, and when. */
struct Answer {
    std::optional<s64> result = {}; /**< none = the function's own failure value (3; 0 or -1 for files) */
    int nth = 1;                    /**< 1 = the next call of that name, counted from the scripting on */
    bool forever = false;           /**< from the n-th on */
};

/** When a hook runs: at the n-th call of the name from now on, once or for ever. */
struct When {
    int nth = 1;
    bool forever = false;
};

struct LogLine {
    int priority;
    std::string tag;
    std::string text;
};

/** A captured picture as the capture device reports it; handle 0 = the capture registered last. */
struct Picture {
    u32 buffer = 0;
    u64 luma = 0; /**< physical addresses */
    u64 chroma = 0;
    u32 event = 1;
    u32 handle = 0;
};

/** An encoded frame; handle 0 = the encoder opened last. The bytes live during the callback only. */
struct EncodedFrame {
    Bytes bytes = {};
    u8 type = 1;
    u64 pts = ~u64{0};
    u32 input_index = 0;
    u32 event = ZU_VENC_EVENT_FRAME;
    std::optional<u32> size =
        {};                   /**< a size that is not that of the bytes; with no bytes the pointer is NULL */
    bool null_record = false; /**< the record pointer itself is NULL */
    u32 handle = 0;
};

/** What ZU_TSMUX_PushMediaData took (answer 0). */
struct PushedFrame {
    u64 source;
    Bytes bytes;
    u64 pts;
};

struct File {
    Bytes bytes = {};
    std::vector<std::pair<u32, u32>> writes = {}; /**< size and count of every ZU_FS_Fwrite */
    int opened = 0;                               /**< how often */
};

/** The encoder's entire inject buffer, offered by Middleware::offer_inject_buffer. */
struct InjectBuffer {
    u8* address; /**< below 4 GiB */
    u32 size;
    u64 physical;       /**< of address */
    u64 block_physical; /**< start of the block that contains it, 8192 bytes earlier */
};

struct Waiter;

/** A point where threads stop until the test lets them go; while they wait there they count as waiting. */
class Gate {
public:
    /** Called from a hook: waits until the gate is open. */
    void wait();
    /** Waits until `count` threads have arrived; false after a minute. */
    bool wait_for_arrivals(int count = 1);
    void open();

private:
    int arrived_ = 0;
    bool open_ = false;
    std::list<Waiter*> waiters_ = {};
};

class Middleware {
public:
    /** The one double of the process; never destroyed. */
    static Middleware& instance();
    /** Ends what is left and forgets everything: log, script, ledger, clock, files, settings. */
    void reset();

    // --- the log of calls ----------------------------------------------------------------------------------
    /** Calls so far, without mutex obtaining and releasing, delays, clocks and log lines. */
    std::vector<std::string> calls() const;
    /** The same, and forgets all calls. */
    std::vector<std::string> take_calls();
    /** Every call by the name that scripts know it by, with its variant where it has one. */
    std::vector<std::string> call_names() const;
    /** Calls that begin with one of the prefixes; the noise too, where a prefix asks for it. */
    std::vector<std::string> calls_of(std::initializer_list<std::string_view> prefixes) const;
    int count(std::string_view function) const;
    /** The record given last to `function` ("ZU_TSMUX_SetAttr:0x200" for an attribute's value); zeros if
     * none. */
    template <class Record> Record last(const std::string& function) const
    {
        Record record = {};
        const Bytes bytes = last_bytes(function);
        EXPECT_EQ(bytes.size(), sizeof(Record)) << "no such record of " << function;
        if (bytes.size() == sizeof(Record))
            std::memcpy(&record, bytes.data(), sizeof(Record));
        return record;
    }
    Bytes last_bytes(const std::string& function) const;

    // --- Android's log -------------------------------------------------------------------------------------
    /** "E [SCREENRECORD_Open]INVALID Trancode Id!": priority letter, no line number, no line end. */
    std::vector<std::string> logs() const;
    std::vector<std::string> take_logs();

    // --- the script ----------------------------------------------------------------------------------------
    void fail(const std::string& name, Answer answer = {});
    /** Lets the n-th call of all from now on fail; calls that cannot fail (clocks, delays, releases, log) do
     * not count. */
    void fail_call_number(int n, std::optional<s64> result = {});
    /** Runs `hook` inside the call before it has any effect. */
    void inside(const std::string& name, std::function<void()> hook, When when = {});
    /** Runs `hook` inside the call after its effect, before it returns. */
    void after(const std::string& name, std::function<void()> hook, When when = {});
    /** Whether some scripted answer was not asked for yet. */
    bool script_pending() const;
    /** Forgets all answers and hooks. */
    void clear_script();

    // --- the ledger ----------------------------------------------------------------------------------------
    /** A sentence for every wrong use so far and for everything that is left; without what is tolerated. */
    std::vector<std::string> ledger_problems() const;
    /** Such a problem may be there; a part of the sentence is enough. */
    void tolerate_problem(const std::string& part);

    // --- time and tasks ------------------------------------------------------------------------------------
    s64 now_ms() const;
    s64 now_us() const;
    void set_now_us(s64 us);
    /** Lets `ms` pass, waking whoever waits in its order, and returns when everybody waits again. */
    void advance(s64 ms);
    /** Waits until every task and callback thread waits in the middleware or has ended. */
    void settle();
    /** Lets time pass as soon as all tasks wait, also when no other thread does. */
    void run_freely(bool on);
    /** From now on tasks are created but not run. */
    void hold_tasks();
    void run_tasks();

    // --- the middleware's own threads; also after the device was closed ------------------------------------
    u32 fire_picture(const Picture& picture);
    u32 fire_encoded_frame(const EncodedFrame& frame);
    u32 fire_tsmux_event(u32 event, u32 handle = 0);
    u32 fire_acap_event(u32 event, u32 handle = 0);
    /**
     * Runs `work` (one of the above) on a thread of the middleware; the future joins it. With
     * `lets_time_pass` false its waits alone do not move the clock, as a task's do not.
     */
    std::future<u32> fire_on_thread(std::function<u32()> work, bool lets_time_pass = true);

    // --- memory and files ----------------------------------------------------------------------------------
    /** Makes `size` bytes at `pointer` reachable by address conversion. */
    void map_physical(u64 physical, void* pointer, u32 size);
    InjectBuffer offer_inject_buffer(u32 size);
    void add_file(const std::string& name, Bytes bytes);
    File file(const std::string& name) const;

    // --- what devices took and give ------------------------------------------------------------------------
    void queue_output(const Bytes& bytes); /**< what ZU_TSMUX_CopyOutputStream hands out */
    void queue_audio(const Bytes& bytes);  /**< what ZU_ACAP_Read hands out */
    std::vector<PushedFrame> pushed() const;
    std::vector<ZU_VENC_InputBuffer_t>
    encoder_inputs() const;           /**< as completed; pu8Data is NULL for lent ones */
    Bytes last_encoder_input() const; /**< bytes of the lent buffer completed last */

    /** How the devices are; set before the library runs. */
    struct Settings {
        ZU_VENC_Caps_t encoder = {3840, 2160, 120, 1, 4096, {}};
        u32 encoder_input_size = 640 * 480 * 3 / 2;
        std::optional<u32> audio_level = {}; /**< none = what is queued */
        /** What a device claims, true or not, of the bytes that it read, copied out, or offers for injection.
         */
        std::optional<u32> claimed_read = {}, claimed_copy = {}, claimed_inject_size = {};
        s32 first_fd = 0; /**< the first IOMMU descriptor; 0 is a good one */
    } settings;

private:
    Middleware() = default;
};

/** The lines as one text, which GoogleTest compares line by line. */
std::string joined(const std::vector<std::string>& lines);

/** Compares two lists of lines; a failure shows a line-by-line difference. */
inline void expect_lines(const char* file, int line, const std::vector<std::string>& actual,
                         const std::vector<std::string>& expected)
{
    ::testing::ScopedTrace trace(file, line, "compared here");
    EXPECT_EQ(joined(actual), joined(expected));
}
#define EXPECT_CALLS(actual, ...) ::middleware::expect_lines(__FILE__, __LINE__, (actual), __VA_ARGS__)

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
