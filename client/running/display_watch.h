#pragma once

#include <optional>
#include <string>

#include "machine/host.h"

namespace client {

/** Looks for what ends the capture of the display. */
class DisplayWatch {
public:
    /** Made before the capture starts. */
    DisplayWatch() : before_(read_statistics()) {}

    /**
     * Why there will be no more pictures: "<purpose> the display ... any more: ...". Nothing while
     * there may be some, or where the platform does not count.
     */
    std::optional<std::string> problem(const std::string& purpose) const;

private:
    std::optional<zu3_host_statistics_t> before_;
};

} // namespace client
