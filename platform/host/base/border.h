#pragma once

#include "base/host_log.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <new>
#include <utility>
#include <zu3/types.h>

/**
 * Marks what a library of the host layer exports; the rest stays inside. On a declaration of a
 * class ahead of its header it exports the table of its virtual functions and its type as well.
 */
#define HOST_EXPORT __attribute__((visibility("default")))

namespace zu3host {

/**
 * Writes an output argument in one piece: a caller may lend a field that its callbacks look at
 * meanwhile, on other threads and before the call returns.
 */
template <typename T> void store_output(T* output, T value)
{
    std::atomic_ref(*output).store(value);
}

/**
 * The result of `call`, or `failure` if it throws; passes the reason to `report`. The only place
 * that catches.
 */
template <typename Result, typename Call, typename Report>
Result answer_or(Result failure, Call&& call, Report&& report) noexcept
{
    try {
        return call();
    } catch (const std::bad_alloc&) {
        report("there is no memory for it");
    } catch (const std::exception& error) {
        report(error.what());
    }
    return failure;
}

/**
 * The border to foreign code. Each exported function that does more than look at its arguments, a
 * clock or an atomic works in here, and so does each thread and each callback that a C library
 * calls: nothing is thrown into code that may be built without exceptions and could not clean up.
 * `what` names the work in the log.
 */
template <typename Result, typename Call>
Result at_border(const char* what, Result failure, Call&& call) noexcept
{
    return answer_or(std::move(failure), call,
                     [&](const char* why) { HOST_LOGE("%s failed: %s.", what, why); });
}

/** For functions that answer with a result code. */
template <typename Call> u32 at_border(const char* function, Call&& call) noexcept
{
    return at_border(function, u32{ZU_FAILURE}, [&] { return u32{call()}; });
}

} // namespace zu3host
