#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace transport_stream {

/** One thing that is wrong in a stream. */
struct Finding {
    std::string kind; /**< one word, e.g. "continuity" */
    size_t packet;    /**< number of the packet, from 0 */
    std::string what;
};

using Findings = std::vector<Finding>;

} // namespace transport_stream
