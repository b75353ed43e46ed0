#include "multiplexer/access_unit.h"

#include <cstring>

namespace zu3host {

namespace {

enum NalType : uint8_t { slice = 1, slice_idr = 5 };

} // namespace

bool is_random_access_unit(std::span<const uint8_t> unit)
{
    const uint8_t* at = unit.data();
    const uint8_t* const end = at + unit.size();
    while (end - at >= 4) {
        at = static_cast<const uint8_t*>(std::memchr(at + 2, 1, static_cast<size_t>(end - at - 3)));
        if (!at)
            return false;
        const bool start_code = at[-1] == 0 && at[-2] == 0;
        const uint8_t type = at[1] & 0x1f;
        if (start_code && type >= slice && type <= slice_idr)
            return type == slice_idr;
        --at;
    }
    return false;
}

} // namespace zu3host
