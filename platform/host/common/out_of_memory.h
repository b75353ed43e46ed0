#pragma once

#include "log/host_log.h"

#include <new>

namespace zu3host {

/**
 * What `call` answers, or `failure` and a log line when there is no memory for `what`. Nothing is thrown into
 * the caller, whose code may have been built without exceptions and could not clean up.
 */
template <typename Result, typename Call>
Result or_out_of_memory(Result failure, const char* what, Call&& call)
{
    try {
        return call();
    } catch (const std::bad_alloc&) {
        HOST_LOGE("There is no memory for %s.", what);
        return failure;
    }
}

} // namespace zu3host
