#pragma once

#include "table/recording_table.h"

#include "middleware/allocation_failures.h"
#include "middleware/middleware.h"
#include "recording_steps.h"

#if defined(__has_feature) // clang's way to say it
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__ 1
#endif
#endif

using middleware::Bytes;

constexpr auto VREADER = E_SCREENRECORD_MODULE_VIDEO_SRC_READER,
               AREADER = E_SCREENRECORD_MODULE_AUDIO_SRC_READER, VCAP = E_SCREENRECORD_MODULE_VCAP,
               ACAP = E_SCREENRECORD_MODULE_ACAP, VENC = E_SCREENRECORD_MODULE_VENC,
               TSMUX = E_SCREENRECORD_MODULE_TSMUX;

/** Fewer trials for instrumented programs, and for ARM, whose programs run under an emulator. */
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__arm__) ||           \
    defined(__aarch64__)
constexpr bool runs_slowly = true;
#else
constexpr bool runs_slowly = false;
#endif

/** AddressSanitizer copies by itself. */
#ifdef __SANITIZE_ADDRESS__
constexpr bool copies_are_counted = false;
#else
constexpr bool copies_are_counted = true;
#endif

/** Starts each test with the library as loaded; ends it with nothing open or left. */
class LibraryTest : public middleware::MiddlewareTest {
protected:
    /** of a picture that a test maps there, physical */
    static constexpr u64 luma_address = 0x500000;

    void SetUp() override
    {
        MiddlewareTest::SetUp();
        _bSysInited = 0;
        _u32RecordTime = 0;
    }

    void TearDown() override
    {
        mw.clear_script();
        steps::close_all();
        MiddlewareTest::TearDown();
    }

    /** Forgets what was called and logged so far. */
    void forget()
    {
        // a task's first pass belongs to what is forgotten
        mw.settle();
        mw.take_calls();
        mw.take_logs();
    }

    /** Error lines since the last call, without those that every stop writes for closed modules. */
    std::vector<std::string> errors()
    {
        std::vector<std::string> lines = mw.take_logs();
        std::erase_if(lines, [](const std::string& line) {
            return !line.starts_with("E ") || line.find("handle is NULL") != std::string::npos;
        });
        return lines;
    }

    /** Runs `client` while threads of the middleware do each of `works` every millisecond. */
    void under_fire(std::initializer_list<std::function<void()>> works,
                    const std::function<void()>& client)
    {
        mw.run_freely(true);
        std::atomic<bool> stop = false;
        std::vector<std::future<u32>> threads;
        for (const auto& work : works)
            threads.push_back(mw.fire_on_thread([&stop, work] {
                for (; !stop; ZU_OS_DelayTask(1)) // lets the virtual time pass
                    work();
                return 0u;
            }));
        client();
        stop = true;
        // joins them
        threads.clear();
        mw.run_freely(false);
    }

    static SCREENRECORD_TaskCtrl_s& task(u32 slot, SCREENRECORD_ZuModule_e module)
    {
        return *_SCREENRECORD_TaskOf(slot, module);
    }
    static bool slot_is_closed(u32 slot)
    {
        const auto is_used = [](const SCREENRECORD_TaskCtrl_s& task) {
            return task.u32Handle != 0 || task.bRunning != 0 || task.s32TaskId != -1 ||
                   task.s32MutexId != -1 || task.u32SrcFile != 0 || task.u32OutFile != 0 ||
                   task.pTaskStack != nullptr;
        };
        return std::ranges::none_of(_astSlotCtrl[slot].astTaskCtrl, is_used) &&
               _astSlotCtrl[slot].stSrcInfo.pu8DstName == nullptr;
    }
};
