#pragma once

#include <core/recording_table.h>

#include "middleware/allocation_failures.h"
#include "middleware/middleware.h"
#include "recording_steps.h"

#if defined(__has_feature) // clang's way to say it
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__ 1
#endif
#endif

/** Where programs run many times slower, the same trials are made with fewer numbers. */
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__arm__)
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

/** Starts each test with the library as it is at load, and ends it with everything closed and nothing left.
 */
class LibraryTest : public middleware::MiddlewareTest {
protected:
    void SetUp() override
    {
        MiddlewareTest::SetUp();
        middleware::forget_library_allocations();
        _bSysInited = 0;
        _u32RecordTime = 0;
    }

    void TearDown() override
    {
        mw.clear_script();
        close_all();
        EXPECT_EQ(middleware::library_allocations_left(), 0u);
        MiddlewareTest::TearDown();
    }

    void close_all()
    {
        video_capenc_stop();
        video_capenc_close();
        video_cap_close();
        audio_cap_close();
        SCREENRECORD_DeInit();
    }

    /** Forgets what was called and logged so far. */
    void forget()
    {
        mw.settle(); // a task's first pass belongs to what is forgotten
        mw.take_calls();
        mw.take_logs();
    }

    /** Error lines since the last look, without those that every stop writes for modules that are not open.
     */
    std::vector<std::string> errors()
    {
        std::vector<std::string> result;
        for (const std::string& line : mw.take_logs())
            if (line.starts_with("E ") && line.find("handle is NULL") == std::string::npos)
                result.push_back(line);
        return result;
    }

    static SCREENRECORD_TaskCtrl_s& task(u32 slot, SCREENRECORD_ZuModule_e module)
    {
        return *_SCREENRECORD_TaskOf(slot, module);
    }
    static bool slot_is_closed(u32 slot)
    {
        for (const SCREENRECORD_TaskCtrl_s& task : _astSlotCtrl[slot].astTaskCtrl)
            if (task.u32Handle != 0 || task.bRunning != 0 || task.s32TaskId != -1 || task.s32MutexId != -1 ||
                task.u32SrcFile != 0 || task.u32OutFile != 0 || task.pTaskStack != nullptr)
                return false;
        return _astSlotCtrl[slot].stSrcInfo.pu8DstName == nullptr;
    }
};

/** The error line of a function of the library, as the log shows it. */
inline std::string error_of(const char* function, const std::string& text)
{
    return "E [" + std::string(function) + "]" + text;
}
