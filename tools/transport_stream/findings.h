#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace transport_stream {

/** One thing that is wrong in a stream. */
struct Finding {
    /** one word, e.g. "continuity" */
    std::string kind;
    /** number of the packet, from 0 */
    size_t packet;
    std::string what;
};

using Findings = std::vector<Finding>;

} // namespace transport_stream
