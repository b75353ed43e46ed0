#pragma once

#include "log/log.h"
#include "memory/device_memory.h"

#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace zu3host {

using namespace std::chrono_literals;

/** Waits for a condition; false after a minute: a sanitizer on a busy machine is slow. */
template <typename Condition> bool wait_until(Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

/** The log since testing::internal::CaptureStderr(); a thread writes it, late on a busy machine. */
inline std::string captured_log()
{
    flush_log(10s);
    return testing::internal::GetCapturedStderr();
}

/** Device memory that a test owns. */
struct DeviceBlock : MemoryBlock {
    explicit DeviceBlock(size_t bytes)
        : MemoryBlock(allocate_block("test", static_cast<uint32_t>(bytes)).value())
    {
    }
    ~DeviceBlock() { free_block(phys); }
    DeviceBlock(const DeviceBlock&) = delete;
    DeviceBlock& operator=(const DeviceBlock&) = delete;
};

} // namespace zu3host
